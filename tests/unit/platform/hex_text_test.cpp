#include "lib/platform/hex_text.h"

#include "tests/unit/platform/platform_test.h"

using namespace test_platform;

TEST(HexText, HasTwoDigitsForEachByte) {
  const std::tuple<const char*, const char*, std::string> rows[] = {
      {"empty", "", ""},
      {"one byte", "4a", "J"},
      {"upper case", "4A", "J"},
      {"high digit first", "1f2E", "\x1f\x2e"},
      {"first and last digits", "0009afAF", "\x00\x09\xaf\xaf"s},
      {"limits", "00ff", "\x00\xff"s},
  };
  for (const auto& [name, text, bytes] : rows) {
    SCOPED_TRACE(name);
    EXPECT_EQ(HexToBytes(text), bytes);
  }
}

TEST(HexText, IsRefusedWithTheFirstReason) {
  const std::tuple<const char*, std::string, std::string> rows[] = {
      {"one digit", "4", "string length"},
      {"three digits", "4a4", "string length"},
      {"odd length and no digits", "xyz", "string length"},
      {"no digit first", "g0", "digit: 0x67"},
      {"no digit second", "0G", "digit: 0x47"},
      {"the first of two", "00zy", "digit: 0x7a"},
      {"before 0", "0/", "digit: 0x2f"},
      {"after 9", "0:", "digit: 0x3a"},
      {"before A", "0@", "digit: 0x40"},
      {"before a", "0`", "digit: 0x60"},
      {"prefix", "0x4a", "digit: 0x78"},
      {"separator", "4a 4a4", "digit: 0x20"},
      {"sign", "+4", "digit: 0x2b"},
      {"NUL", "\0\0"s, "digit: 0x00"},
      {"high byte", "\xff\xff", "digit: 0xff"},
  };
  for (const auto& [name, text, reason] : rows) {
    SCOPED_TRACE(name);
    ExpectRuntimeError("Invalid hexadecimal " + reason, [&text = text] { HexToBytes(text); });
  }
}
