#include "lib/platform/string_operations.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <string>

#include "tests/unit/platform/ruler.h"
#include "tests/unit/support/aborts.h"
#include "tests/unit/support/wrapped_calls.h"

using bramble::strprintf;
using bramble::strvprintf;
using test_platform::Ruler;

namespace {

[[gnu::format(printf, 1, 2)]] std::string ThroughVaList(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = strvprintf(format, args);
  va_end(args);
  return text;
}

}  // namespace

TEST(Strprintf, CutsOnlyAboveFourThousandBytes) {
  const struct {
    const char* name;
    std::size_t length;
    int passes;
  } rows[] = {
      {"empty", 0, 1},
      {"one byte", 1, 1},
      {"one below the buffer", 254, 1},
      {"fills the buffer", 255, 1},
      {"one more than the buffer", 256, 2},
      {"one below the cap", 3999, 2},
      {"at the cap", 4000, 2},
      {"one above the cap", 4001, 2},
      {"far above the cap", 5000, 2},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string text = Ruler(row.length);
    const std::string expected = row.length <= 4000 ? text : text.substr(0, 3997) + "...";
    int passes = 0;
    {
      const wrapped_calls::CountedFormatting formatting;
      EXPECT_EQ(ThroughVaList("%s", text.c_str()), expected);
      passes = formatting.Passes();
    }
    EXPECT_EQ(passes, row.passes);
    EXPECT_EQ(strprintf("%s", text.c_str()), expected);
  }
}

TEST(Strprintf, UsesItsArgumentsAgainInTheSecondPass) {
  const std::string filler(400, 'x');
  const std::string expected = "1 two 3 " + filler + " 5.5";
  EXPECT_EQ(strprintf("%d %s %ld %s %.1f", 1, "two", 3L, filler.c_str(), 5.5), expected);
  EXPECT_EQ(ThroughVaList("%d %s %ld %s %.1f", 1, "two", 3L, filler.c_str(), 5.5), expected);
}

TEST(Strprintf, CapsTheWholeMessageNotAnArgument) {
  const std::string text = strprintf("%s%s|", Ruler(3990).c_str(), "0123456789");
  EXPECT_EQ(text, Ruler(3990) + "0123456...");
}

TEST(Strprintf, ExpandsTheErrnoText) {
  // Not a literal, as pedantic compilers know "%m" as an extension.
  const std::string format = "failed to %s: %m";
  errno = ENOENT;
  EXPECT_EQ(strprintf(format.c_str(), "fork"), "failed to fork: No such file or directory");
  errno = EACCES;
  EXPECT_EQ(ThroughVaList(format.c_str(), "fork"), "failed to fork: Permission denied");
}

TEST(Strprintf, KeepsNulBytes) { EXPECT_EQ(strprintf("a%cb", 0), std::string("a\0b", 3)); }

TEST(Strprintf, AbortsWhenTheFormatIsRefused) {
  // No character set of the "C" locale holds this character, so that the C library refuses to convert it.
  const wchar_t no_character[] = {0x20AC, 0};
  EXPECT_ASSERTION(strprintf("%ls", no_character), "false", "lib/platform/string_operations.cpp",
                   "std::string bramble::strvprintf\\(const char ?\\*, .*\\)");
}

TEST(Strprintf, AbortsWhenTheSecondPassFails) {
  EXPECT_ASSERTION(
      {
        const wrapped_calls::CountedFormatting formatting(2);
        strprintf("%s", Ruler(300).c_str());
      },
      "false", "lib/platform/string_operations.cpp", "std::string bramble::strvprintf\\(const char ?\\*, .*\\)");
}
