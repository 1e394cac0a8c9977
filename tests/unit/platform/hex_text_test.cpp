#include "lib/platform/hex_text.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/support/throws.h"

using bramble::HexToBytes;
using namespace std::string_literals;

TEST(HexText, HoldsTwoDigitsForEachByte) {
  const struct {
    const char* name;
    const char* text;
    std::string bytes;
  } rows[] = {
      {"empty", "", ""},
      {"one byte", "4a", "J"},
      {"upper case", "4A", "J"},
      {"high digit first", "1f2E", "\x1f\x2e"},
      {"first and last digits", "0009afAF", "\x00\x09\xaf\xaf"s},
      {"limits", "00ff", "\x00\xff"s},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(HexToBytes(row.text), row.bytes);
  }
}

TEST(HexText, IsRefusedWithTheFirstReason) {
  const struct {
    const char* name;
    std::string text;
    const char* error;
  } rows[] = {
      {"one digit", "4", "Invalid hexadecimal string length"},
      {"three digits", "4a4", "Invalid hexadecimal string length"},
      {"odd length and no digits", "xyz", "Invalid hexadecimal string length"},
      {"no digit first", "g0", "Invalid hexadecimal digit: 0x67"},
      {"no digit second", "0G", "Invalid hexadecimal digit: 0x47"},
      {"the first of two", "00zy", "Invalid hexadecimal digit: 0x7a"},
      {"before 0", "0/", "Invalid hexadecimal digit: 0x2f"},
      {"after 9", "0:", "Invalid hexadecimal digit: 0x3a"},
      {"before A", "0@", "Invalid hexadecimal digit: 0x40"},
      {"before a", "0`", "Invalid hexadecimal digit: 0x60"},
      {"prefix", "0x4a", "Invalid hexadecimal digit: 0x78"},
      {"separator", "4a 4a4", "Invalid hexadecimal digit: 0x20"},
      {"sign", "+4", "Invalid hexadecimal digit: 0x2b"},
      {"NUL", "\0\0"s, "Invalid hexadecimal digit: 0x00"},
      {"high byte", "\xff\xff", "Invalid hexadecimal digit: 0xff"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    test_platform::ExpectRuntimeError(row.error, [&] { HexToBytes(row.text); });
  }
}
