#include "lib/hardware/automatic_base.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <string>
#include <vector>

// The linker replaces calls of F by calls of __wrap_F. __real_F is the original function. This double parses binary
// numbers, as newer C libraries do, so the test does not depend on the C library.
extern "C" {

unsigned long long __real_strtoull(const char* text, char** end, int base);

unsigned long long __wrap_strtoull(const char* text, char** end, int base);
unsigned long long __wrap_strtoull(const char* text, char** end, int base) {
  const bool binary = base == 0 && text[0] == '0' && std::tolower(text[1]) == 'b';
  return binary ? __real_strtoull(text + 2, end, 2) : __real_strtoull(text, end, base);
}

}  // extern "C"

TEST(AutomaticBase, FollowsThePrefix) {
  constexpr unsigned long long kMaximum = 18446744073709551615ULL;
  const std::string nul(1, '\0');
  const struct {
    unsigned long long number;
    std::vector<std::string> texts;
  } rows[] = {
      {49, {"49", "0x31", "061", "+49", " \f\n\r\t\v0x31", "49zzz", "49" + nul + "2"}},
      {0xAB, {"0XAB", "0xab"}},
      {0x3F00000000, {"0x3F00000000"}},
      {0x8000000000000000, {"0x8000000000000000"}},
      {kMaximum, {"18446744073709551615", "-1"}},
      {kMaximum - 1, {"-0x2"}},
      // One above the maximum, and far above it.
      {kMaximum, {"18446744073709551616", "0xFFFFFFFFFFFFFFFFFFFF"}},
      // Binary numbers are not supported. The last looks like one.
      {0, {"0b11", "0B11"}},
      {0xb11, {"0x0b11"}},
      {0, {"0", "00", "08", "0x", "0xg", "", " ", "-", "+-1", "- 1", "junk", "b"}},
  };
  for (const auto& row : rows) {
    for (const std::string& text : row.texts) {
      EXPECT_EQ(ParseUnsigned(text), row.number) << text;
    }
  }
}
