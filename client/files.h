// Documents in files. They are read and replaced as a whole.
#pragma once

#include <string>

namespace ledgerctl {

/// Returns all bytes of the file, or of standard input for "-". Throws Failure (Local).
std::string ReadDocument(const std::string& path);

/// Returns how messages name the document: the path, or "standard input".
std::string ShownSource(const std::string& path);

/// Replaces the file in one step, also across a power cut: a reader sees the old text or the new one. A new file is
/// private; one that replaces another keeps its owner, group and mode, see KeepAccess. If `path` is a symbolic link,
/// its target is replaced. If `path` is not a regular file but, for example, a terminal or a FIFO, the text is written
/// to it. Throws Failure (Local); the old file is then unchanged, unless only the sync of its directory failed.
void ReplaceDocument(const std::string& path, const std::string& text);

}  // namespace ledgerctl
