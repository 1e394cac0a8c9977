#include "lib/hardware/automatic_base.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <string>

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
  constexpr unsigned long long kGreatest = 18446744073709551615ULL;
  const struct {
    const char* name;
    std::string text;
    unsigned long long number;
  } rows[] = {
      {"hexadecimal", "0x31", 0x31},
      {"octal", "061", 0x31},
      {"decimal", "49", 0x31},
      {"upper case", "0XAB", 0xAB},
      {"trailing junk", "49zzz", 49},
      {"plus", "+49", 49},
      {"leading white space", " \f\n\r\t\v0x31", 0x31},
      {"negative", "-1", kGreatest},
      {"negative hexadecimal", "-0x2", kGreatest - 1},
      {"above 32 bits", "0x3F00000000", 0x3F00000000},
      {"highest bit", "0x8000000000000000", 0x8000000000000000},
      {"maximum", "18446744073709551615", kGreatest},
      {"one above the maximum", "18446744073709551616", kGreatest},
      {"far above the maximum", "0xFFFFFFFFFFFFFFFFFFFF", kGreatest},
      {"binary is not supported", "0b11", 0},
      {"binary in upper case is not supported", "0B11", 0},
      {"hexadecimal that looks binary", "0x0b11", 0xb11},
      {"digit without a prefix", "b", 0},
      {"zero", "0", 0},
      {"zeros", "00", 0},
      {"not octal", "08", 0},
      {"only a prefix", "0x", 0},
      {"prefix without a digit", "0xg", 0},
      {"empty", "", 0},
      {"white space", " ", 0},
      {"only a sign", "-", 0},
      {"two signs", "+-1", 0},
      {"white space after the sign", "- 1", 0},
      {"junk", "junk", 0},
      {"NUL ends the number", std::string("4\0002", 3), 4},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(ParseUnsigned(row.text), row.number);
  }
}
