// Documents in files: read as a whole, replaced as a whole.
#pragma once

#include <string>

namespace ledgerctl {

/// All bytes of the file, or of standard input for "-". Throws Failure (Local).
std::string ReadDocument(const std::string& path);

/// How messages name it: the path, or "standard input".
std::string ShownSource(const std::string& path);

/// Replaces the file in one step, also across a power cut: a reader sees the old text or the new one. The mode is that
/// of a new file. Where `path` is a symbolic link the file behind it is replaced; what is no ordinary file, such as a
/// terminal or a FIFO, is written to. Throws Failure (Local), and the old file is as it was.
void ReplaceDocument(const std::string& path, const std::string& text);

}  // namespace ledgerctl
