// The one temporary file that the program has at a time: removed at the end, and by the signals that end the program
// unless it holds somebody's work.
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

  /// Puts the file in the place of `path`, synced. Throws Failure (Local).
  void RenameTo(const std::string& path);

  /// From now on the file holds somebody's work: whatever ends the program leaves it and says where it is.
  void HoldWork();

  /// Leaves the file where it is.
  void Keep();

private:
  TemporaryFile(std::string path, bramble::FileDescriptor file);

  std::string m_path;
  bramble::FileDescriptor m_file;
};

/// "." for a path without a slash.
std::string DirectoryOf(const std::string& path);

/// For signal handlers that end the program: removes the file or, if it holds somebody's work, says where it is.
void SettleTemporaryFile() noexcept;

/// Precedes the path of a file that holds work.
inline constexpr std::string_view kKeptText = "Your text is kept in ";

}  // namespace ledgerctl
