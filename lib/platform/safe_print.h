// How the program prints diagnostics: printf-compatible and type-safe. A failure to format never propagates.
#pragma once

#include <fmt/printf.h>

#include <cstdio>
#include <exception>

namespace bramble {

/// Formats with fmt's printf-compatible formatter, writes the result to `stream` and returns the number of bytes, or a
/// negative number if the write fails. If formatting throws a std::exception, writes the line
/// "Message '<format>' threw '<reason>'" instead and returns its length. Does not throw a std::exception.
///
/// fmt does not support "%m". Format such a text with strprintf first and print it with "%s".
template <typename... Args>
int SafePrint(std::FILE* stream, const char* format, const Args&... args) noexcept {
  try {
    return fmt::fprintf(stream, format, args...);
  } catch (const std::exception& e) {
    return std::fprintf(stream, "Message '%s' threw '%s'\n", format, e.what());
  }
}

}  // namespace bramble
