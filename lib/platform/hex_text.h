// Bytes written as hexadecimal text.
#pragma once

#include <string>

namespace bramble {

/// The value of a hexadecimal digit of either case, -1 for any other byte.
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

/// Returns the bytes that `text` holds as two digits each, without prefix or separators. Throws std::runtime_error
/// "Invalid hexadecimal string length" if the length is odd, and otherwise "Invalid hexadecimal digit: 0x<byte>" with
/// the first byte that is not a digit. Throws std::bad_alloc.
std::string HexToBytes(const std::string& text);

}  // namespace bramble
