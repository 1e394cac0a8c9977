#include "lib/platform/string_operations.h"

#include <cstdarg>

#include "tests/unit/platform/platform_test.h"

using namespace test_platform;

namespace {

constexpr char kFile[] = "lib/platform/string_operations.cpp";
constexpr char kFunction[] = "std::string bramble::strvprintf\\(const char ?\\*, .*\\)";

[[gnu::format(printf, 1, 2)]] std::string ThroughVaList(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = strvprintf(format, args);
  va_end(args);
  return text;
}

}  // namespace

TEST(Strprintf, CutsTextsOverFourThousandBytes) {
  const std::tuple<const char*, std::size_t, int> rows[] = {
      {"empty", 0, 1},
      {"one byte", 1, 1},
      {"one below the buffer", 254, 1},
      {"fills the buffer", 255, 1},
      {"one more than the buffer", 256, 2},
      {"one below the limit", 3999, 2},
      {"at the limit", 4000, 2},
      {"one above the limit", 4001, 2},
      {"far above the limit", 5000, 2},
  };
  for (const auto& [name, length, passes] : rows) {
    SCOPED_TRACE(name);
    const std::string text = Ruler(length);
    const std::string expected = length <= 4000 ? text : text.substr(0, 3997) + "...";
    {
      const CountedFormatting formatting;
      const std::string formatted = ThroughVaList("%s", text.c_str());
      const int counted = formatting.Passes();
      EXPECT_EQ(formatted, expected);
      EXPECT_EQ(counted, passes);
    }
    EXPECT_EQ(strprintf("%s", text.c_str()), expected);
  }
  EXPECT_EQ(strprintf("%s%s|", Ruler(3990).c_str(), "0123456789"), Ruler(3990) + "0123456...")
      << "the limit is for the whole text";
}

TEST(Strprintf, UsesItsArgumentsAgainInTheSecondPass) {
  const std::string filler(400, 'x');
  const std::string expected = "1 two 3 " + filler + " 5.5";
  EXPECT_EQ(strprintf("%d %s %ld %s %.1f", 1, "two", 3L, filler.c_str(), 5.5), expected);
  EXPECT_EQ(ThroughVaList("%d %s %ld %s %.1f", 1, "two", 3L, filler.c_str(), 5.5), expected);
}

TEST(Strprintf, ExpandsTheErrnoTextAndKeepsNulBytes) {
  // Not a literal, because compilers warn that "%m" is an extension.
  const std::string format = "failed to %s: %m%c!";
  errno = ENOENT;
  EXPECT_EQ(strprintf(format.c_str(), "fork", 0), "failed to fork: No such file or directory\0!"s);
  errno = EACCES;
  EXPECT_EQ(ThroughVaList(format.c_str(), "fork", 0), "failed to fork: Permission denied\0!"s);
}

TEST(Strprintf, AbortsIfEitherPassFails) {
  // No character set of the "C" locale has this character, so the C library rejects it.
  const wchar_t no_character[] = {0x20AC, 0};
  EXPECT_ASSERTION(strprintf("%ls", no_character), "false", kFile, kFunction);
  EXPECT_ASSERTION(
      {
        const CountedFormatting second_pass_fails(2);
        strprintf("%s", Ruler(300).c_str());
      },
      "false", kFile, kFunction);
}
