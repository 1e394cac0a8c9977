// Hexadecimal digits, and bytes written as hexadecimal text.
#pragma once

#include <string>

namespace bramble {

/// Returns the value of a hexadecimal digit in upper or lower case, or -1 for any other byte.
constexpr int HexDigitValue(char digit) {
  if (digit >= '0' && digit <= '9') {
    return digit - '0';
  }
  if (digit >= 'a' && digit <= 'f') {
    return digit - 'a' + 10;
  }
  if (digit >= 'A' && digit <= 'F') {
    return digit - 'A' + 10;
  }
  return -1;
}

/// Decodes `text`, which has two digits for each byte and no prefix or separators. Throws std::runtime_error with the
/// text "Invalid hexadecimal string length" if the length is odd, or "Invalid hexadecimal digit: 0x<byte>" for the
/// first byte that is not a digit. Throws std::bad_alloc.
std::string HexToBytes(const std::string& text);

}  // namespace bramble
