#include "lib/platform/safe_print.h"

#include <fmt/printf.h>

#include "tests/unit/platform/platform_test.h"

using namespace test_platform;

static_assert(noexcept(SafePrint(nullptr, "")));

namespace {

using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// Releases of the formatting library use different words.
std::string ReasonOfTypeMismatch() {
  try {
    return "formatted " + fmt::sprintf("%d", "text");
  } catch (const fmt::format_error& e) {
    return e.what();
  }
}

}  // namespace

TEST(SafePrint, FormatsLikePrintfOrPrintsTheReason) {
  const std::tuple<const char*, int (*)(std::FILE*), std::string> rows[] = {
      {"conversions",
       [](std::FILE* out) { return SafePrint(out, "%s: %d %05u 0x%02x %c 100%%\n", "name", -7, 42U, 10, 'z'); },
       "name: -7 00042 0x0a z 100%\n"},
      {"strings", [](std::FILE* out) { return SafePrint(out, "%s %s\n", "std"s, "c"); }, "std c\n"},
      {"argument like a format", [](std::FILE* out) { return SafePrint(out, "%s", "%d {} %m"); }, "%d {} %m"},
      {"empty", [](std::FILE* out) { return SafePrint(out, ""); }, ""},
      {"text of errno", [](std::FILE* out) { return SafePrint(out, "failed: %m\n"); },
       "Message 'failed: %m\n' threw 'argument not found'\n"},
      {"missing argument", [](std::FILE* out) { return SafePrint(out, "printed before %d of %d", 1); },
       "Message 'printed before %d of %d' threw 'argument not found'\n"},
      {"wrong type", [](std::FILE* out) { return SafePrint(out, "%d", "text"); },
       "Message '%d' threw '" + ReasonOfTypeMismatch() + "'\n"},
  };
  const TempDir dir;
  for (const auto& [name, print, printed] : rows) {
    SCOPED_TRACE(name);
    Stream stream(std::fopen((dir / "out").c_str(), "we"), std::fclose);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(print(stream.get()), static_cast<int>(printed.size()));
    stream.reset();
    EXPECT_EQ(ReadTextFile(dir / "out"), printed);
  }
}

TEST(SafePrint, ReturnsANegativeNumberIfTheWriteFails) {
  const Stream full(std::fopen("/dev/full", "we"), std::fclose);
  ASSERT_NE(full, nullptr);
  std::setvbuf(full.get(), nullptr, _IONBF, 0);
  EXPECT_LT(SafePrint(full.get(), "%s\n", "text"), 0);
}
