// The temporary file of the program, which has at most one at a time. It is removed when the object is destroyed. A
// signal that ends the program also removes it, unless it contains the user's work.
#pragma once

#include <string>
#include <string_view>

#include "lib/platform/posix_helpers.h"

namespace ledgerctl {

class TemporaryFile {
public:
  /// Makes a file in the directory of `path` that only its owner can read.
  static TemporaryFile Beside(const std::string& path);

  /// Makes a file in the directory for temporary files ($TMPDIR or /tmp) that only its owner can read.
  static TemporaryFile Private();

  TemporaryFile(TemporaryFile&& other) noexcept;
  ~TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  const std::string& Path() const { return m_path; }

  /// The open file; -1 after WriteAndClose.
  int Fd() const { return m_file.Get(); }

  /// Writes, syncs and closes. Throws Failure (Local).
  void WriteAndClose(const std::string& text);

  /// Renames the file to `path`, which it replaces, and syncs the directory. Throws Failure (Local).
  void RenameTo(const std::string& path);

  /// From now on the file contains the user's work: if a signal or the time limit ends the program, the file is kept
  /// and its path is printed.
  void HoldWork();

  /// Keeps the file: the destructor and signals no longer remove it.
  void Keep();

private:
  TemporaryFile(std::string path, bramble::FileDescriptor file);

  std::string m_path;
  bramble::FileDescriptor m_file;
};

/// Returns the path of the directory of `path`: "." for a path without a slash.
std::string DirectoryOf(const std::string& path);

/// For signal handlers that end the program: removes the file or, if it contains the user's work, prints its path.
void SettleTemporaryFile() noexcept;

/// Precedes the path of a file that contains the user's work.
inline constexpr std::string_view kKeptText = "Your text is kept in ";

}  // namespace ledgerctl
