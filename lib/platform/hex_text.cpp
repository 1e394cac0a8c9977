#include "lib/platform/hex_text.h"

#include <cstddef>
#include <stdexcept>

#include "lib/platform/string_operations.h"

namespace bramble {
namespace {

int ValueOrThrow(char digit) {
  const int value = HexDigitValue(digit);
  if (value < 0) {
    throw std::runtime_error(strprintf("Invalid hexadecimal digit: 0x%02x", static_cast<unsigned char>(digit)));
  }
  return value;
}

}  // namespace

std::string HexToBytes(const std::string& text) {
  if (text.size() % 2 != 0) {
    throw std::runtime_error("Invalid hexadecimal string length");
  }
  std::string bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const int high = ValueOrThrow(text[i]);
    bytes += static_cast<char>(high << 4 | ValueOrThrow(text[i + 1]));
  }
  return bytes;
}

}  // namespace bramble
