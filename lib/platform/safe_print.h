// The one way in which the program prints diagnostics: printf-compatible, type-safe, and never a reason to fail.
#pragma once

#include <fmt/printf.h>

#include <cstdio>
#include <exception>

namespace bramble {

/// Formats with fmt's printf-compatible formatter, writes the result to `stream` and returns the count of bytes
/// (negative when the stream refuses them). When formatting throws a std::exception, the line
/// "Message '<format>' threw '<reason>'" is written instead and its count returned. Does not throw a std::exception.
///
/// fmt knows no "%m": text that needs it is made with strprintf first and printed through "%s".
template <typename... Args>
int SafePrint(std::FILE* stream, const char* format, const Args&... args) noexcept {
  try {
    return fmt::fprintf(stream, format, args...);
  } catch (const std::exception& e) {
    return std::fprintf(stream, "Message '%s' threw '%s'\n", format, e.what());
  }
}

}  // namespace bramble
