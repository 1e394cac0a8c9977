// printf-style formatting into a string of limited length.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

namespace bramble {

/// The longest string, in bytes, that strvprintf and strprintf return.
constexpr std::size_t kLongestFormattedString = 4000;

/// Formats with the C library, so "%m" (the text of the current `errno`) works. A result of more than 4000 bytes is
/// deliberately cut to 4000 bytes, the last three of which are "...". For results under 256 bytes, only the returned
/// string may allocate memory. It is an assertion failure if the C library rejects the format. Throws std::bad_alloc.
[[gnu::format(printf, 1, 0)]] std::string strvprintf(const char* format, va_list args);

/// Like strvprintf.
[[gnu::format(printf, 1, 2)]] std::string strprintf(const char* format, ...);

}  // namespace bramble
