// printf-style formatting into a string of bounded length.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

namespace bramble {

/// The longest string, in bytes, that strvprintf and strprintf return.
constexpr std::size_t kLongestFormattedString = 4000;

/// Formats with the C library, so "%m" (the text of the current `errno`) works. A result of more than 4000 bytes is cut
/// to 4000, of which the last three are "..."; the cap is deliberate and holds for every message built this way. Short
/// results (under 256 bytes) cost no allocation but the returned string. A format that the C library refuses is an
/// assertion failure. Throws std::bad_alloc.
[[gnu::format(printf, 1, 0)]] std::string strvprintf(const char* format, va_list args);

/// As strvprintf.
[[gnu::format(printf, 1, 2)]] std::string strprintf(const char* format, ...);

}  // namespace bramble
