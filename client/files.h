// Documents in files: read as a whole, replaced as a whole.
#pragma once

#include <string>

namespace ledgerctl {

/// All bytes of the file, or of standard input for "-". Throws Failure (Local).
std::string ReadDocument(const std::string& path);

/// Returns its name in messages: the path, or "standard input".
std::string ShownSource(const std::string& path);

/// Replaces the file in one step, also across a power cut: a reader sees the old text or the new one. A new file is
/// private; one that replaces another keeps its owner, group and mode, see KeepAccess. If `path` is a symbolic link,
/// the file that it leads to is replaced. Anything but an ordinary file, such as a terminal or a FIFO, is written to.
/// Throws Failure (Local); the old file is then unchanged, unless only the sync of its directory failed.
void ReplaceDocument(const std::string& path, const std::string& text);

}  // namespace ledgerctl
