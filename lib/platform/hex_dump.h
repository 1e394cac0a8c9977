// Hexadecimal dumps of memory, written to a trace sink.
#pragma once

#include <cstddef>

namespace bramble {

class BaseTrace;

/// Emits one line for each 16 bytes: the address, the bytes in hexadecimal, and the bytes as characters ('.' if not
/// printable ASCII). Emits nothing for an empty range. Throws std::bad_alloc and the exceptions of the sink.
void HexDump(BaseTrace& sink, const void* data, std::size_t length);

/// Emits `title` as one text, then the dump. Adds a newline to a `title` that is not empty and does not end with one.
void HexDump(BaseTrace& sink, const char* title, const void* data, std::size_t length);

}  // namespace bramble
