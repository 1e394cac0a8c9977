// A hexadecimal dump of a memory range, line by line, to a trace sink.
#pragma once

#include <cstddef>

namespace bramble {

class BaseTrace;

/// Emits one line for each 16 bytes: the address, the bytes in hexadecimal, the bytes as characters ('.' for what is
/// not printable ASCII). An empty range emits nothing. Throws std::bad_alloc and what the sink throws.
void HexDump(BaseTrace& sink, const void* data, std::size_t length);

/// Emits `title` as one text first (with a line feed added if it is not empty and has none at its end), then the dump.
void HexDump(BaseTrace& sink, const char* title, const void* data, std::size_t length);

}  // namespace bramble
