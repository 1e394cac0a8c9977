#include "lib/platform/string_operations.h"

#include <algorithm>
#include <cstdio>

#include "lib/platform/assertion.h"

namespace bramble {

std::string strvprintf(const char* format, va_list args) {
  va_list second_pass;
  va_copy(second_pass, args);

  char buffer[256];
  const int needed = std::vsnprintf(buffer, sizeof buffer, format, args);
  if (needed < 0) {
    va_end(second_pass);
    BRAMBLE_ASSERT(false);
  }
  const auto length = static_cast<std::size_t>(needed);
  if (length < sizeof buffer) {
    va_end(second_pass);
    return std::string(buffer, length);
  }

  // vsnprintf writes its NUL over the terminator of the string.
  std::string text(std::min(length, kLongestFormattedString), '\0');
  const int written = std::vsnprintf(text.data(), text.size() + 1, format, second_pass);
  va_end(second_pass);
  if (written < 0) {
    BRAMBLE_ASSERT(false);
  }
  if (length > kLongestFormattedString) {
    text.replace(text.size() - 3, 3, "...");
  }
  return text;
}

std::string strprintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = strvprintf(format, args);
  va_end(args);
  return text;
}

}  // namespace bramble
