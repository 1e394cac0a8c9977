// File descriptors, reading of whole files, and atomic replacement of files. All code of the program that calls open(),
// read(), write() or close() in a loop is here.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace bramble {

/// Owns one file descriptor, or none (-1). Movable, not copyable.
class FileDescriptor {
public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : m_fd(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : m_fd(other.Release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;

  /// Closes the descriptor if it is open and ignores errors. Use Close to get them.
  ~FileDescriptor();

  int Get() const { return m_fd; }
  bool IsOpen() const { return m_fd >= 0; }

  /// Closes the descriptor. Throws ErrnoException without context; the descriptor is closed even then.
  void Close();

  /// Transfers ownership of the descriptor to the caller.
  int Release() noexcept;

private:
  int m_fd = -1;
};

/// Opens a file with O_CLOEXEC added to `flags`. Throws ErrnoException with the path as context.
FileDescriptor Open(const std::string& path, int flags, mode_t mode = 0);

/// Reads until it has `length` bytes or the file ends, and returns the number of bytes. Throws ErrnoException with
/// `context` (none if null); the bytes that were read before are lost.
std::size_t read_all_throw(int fd, void* buffer, std::size_t length, const char* context = nullptr);

/// Writes all `length` bytes and continues after partial writes. Throws ErrnoException without context; some bytes may
/// then have been written. It is an assertion failure if write() returns 0. EINTR is treated as an error; it does not
/// normally occur, because the program installs its signal handlers with SA_RESTART.
void write_all_throw(int fd, const void* buffer, std::size_t length);

/// Returns all bytes of a file, even if its size is not known in advance (as under /proc). Throws ErrnoException with
/// the path as context if the file cannot be opened, and without context if it cannot be read. Throws std::bad_alloc.
std::string ReadFile(const std::string& path);

/// Replaces the contents of the file atomically: readers see the complete old text or the complete new text, even if
/// the process crashes. Writes the text to "<path>~~new" and renames that over `path`. A new temporary file gets `mode`
/// (subject to the umask). A temporary file that a crash has left is reused and keeps its mode. Does not sync: a power
/// cut can lose the new text. Throws ErrnoException; the old file is then unchanged and the temporary file removed.
void ReplaceFile(const std::string& path, const std::string& text, mode_t mode);

}  // namespace bramble
