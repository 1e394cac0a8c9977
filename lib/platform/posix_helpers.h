// Descriptors, whole-file reading and atomic replacement: every raw open, read, write and close loop of the program.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace bramble {

/// Owns one descriptor; -1 means none. Movable, not copyable.
class FileDescriptor {
public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : m_fd(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : m_fd(other.Release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;

  /// Closes what is still open and ignores errors; Close reports them.
  ~FileDescriptor();

  int Get() const { return m_fd; }
  bool IsOpen() const { return m_fd >= 0; }

  /// Closes the descriptor. Throws ErrnoException without context; the descriptor is gone even then.
  void Close();

  /// Gives the descriptor to the caller and keeps none.
  int Release() noexcept;

private:
  int m_fd = -1;
};

/// Opens with close-on-exec added to `flags`. Throws ErrnoException with the path as context.
FileDescriptor Open(const std::string& path, int flags, mode_t mode = 0);

/// Reads until `length` bytes have arrived or the file ends, and returns the count. Throws ErrnoException with
/// `context` (none if null); what was read before is lost.
std::size_t read_all_throw(int fd, void* buffer, std::size_t length, const char* context = nullptr);

/// Writes all `length` bytes, going on after partial writes. Throws ErrnoException without context; part of the bytes
/// may then have been written. A write that takes nothing is an assertion failure. An interrupted call counts as
/// failed: the program's signal handlers restart system calls.
void write_all_throw(int fd, const void* buffer, std::size_t length);

/// Returns all bytes of a file, also of one whose size is not known beforehand (as under /proc). Throws ErrnoException:
/// with the path as context if it cannot be opened, without context if it cannot be read; std::bad_alloc.
std::string ReadFile(const std::string& path);

/// Replaces the file's contents in one step: readers, and a crash of the process, see the old text or the new one.
/// The text is written to "<path>~~new" and renamed over `path`. A new file has `mode` (subject to the umask); one
/// that a crash has left keeps its own. It is not synced: a power cut can lose it. Throws ErrnoException, after
/// which the old file is still in place and the new one removed.
void ReplaceFile(const std::string& path, const std::string& text, mode_t mode);

}  // namespace bramble
