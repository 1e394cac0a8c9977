#include "lib/platform/safe_print.h"

#include <fcntl.h>
#include <fmt/printf.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>

#include "tests/unit/support/temp_dir.h"

using bramble::SafePrint;
using test_support::ReadTextFile;
using test_support::TempDir;

namespace {

struct CloseStream {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, CloseStream>;

class SafePrintTest : public testing::Test {
protected:
  void SetUp() override { ASSERT_NE(m_stream, nullptr); }

  std::string Printed() {
    std::fflush(m_stream.get());
    return ReadTextFile(m_path);
  }

  TempDir m_dir;
  std::string m_path = m_dir / "out";
  Stream m_stream{std::fopen(m_path.c_str(), "we")};
};

// Releases of the formatting library word it differently.
std::string ReasonOfTypeMismatch() {
  try {
    return "formatted " + fmt::sprintf("%d", "text");
  } catch (const fmt::format_error& e) {
    return e.what();
  }
}

}  // namespace

TEST_F(SafePrintTest, FormatsAsPrintfDoesAndReturnsTheCount) {
  EXPECT_EQ(SafePrint(m_stream.get(), "%s: %d %05u 0x%02x %c 100%%\n", "name", -7, 42U, 10, 'z'), 27);
  EXPECT_EQ(Printed(), "name: -7 00042 0x0a z 100%\n");
}

TEST_F(SafePrintTest, PrintsStringsOfAnyKind) {
  const std::string text = "std";
  EXPECT_EQ(SafePrint(m_stream.get(), "%s %s\n", text, text.c_str()), 8);
  EXPECT_EQ(Printed(), "std std\n");
}

TEST_F(SafePrintTest, PrintsArgumentsThatLookLikeFormatsAsTheyAre) {
  EXPECT_EQ(SafePrint(m_stream.get(), "%s", "%d {} %m"), 8);
  EXPECT_EQ(Printed(), "%d {} %m");
}

TEST_F(SafePrintTest, PrintsAnEmptyTextAsNothing) {
  EXPECT_EQ(SafePrint(m_stream.get(), ""), 0);
  EXPECT_EQ(Printed(), "");
}

TEST_F(SafePrintTest, ReportsTheReasonInsteadOfFailing) {
  const struct {
    const char* name;
    int (*print)(std::FILE*);
    std::string line;
  } rows[] = {
      {"text of errno", [](std::FILE* stream) { return SafePrint(stream, "failed: %m\n"); },
       "Message 'failed: %m\n' threw 'argument not found'\n"},
      {"argument missing", [](std::FILE* stream) { return SafePrint(stream, "%d of %d", 1); },
       "Message '%d of %d' threw 'argument not found'\n"},
      {"type does not fit", [](std::FILE* stream) { return SafePrint(stream, "%d", "text"); },
       "Message '%d' threw '" + ReasonOfTypeMismatch() + "'\n"},
  };
  std::string printed;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.print(m_stream.get()), static_cast<int>(row.line.size()));
    printed += row.line;
    EXPECT_EQ(Printed(), printed);
  }
}

TEST_F(SafePrintTest, WritesNothingOfAMessageThatFails) {
  SafePrint(m_stream.get(), "written before %s %s", "the fault");
  EXPECT_EQ(Printed(), "Message 'written before %s %s' threw 'argument not found'\n");
}

TEST(SafePrint, ReturnsNegativeWhenTheStreamRefuses) {
  const Stream full(std::fopen("/dev/full", "we"));
  ASSERT_NE(full, nullptr);
  std::setvbuf(full.get(), nullptr, _IONBF, 0);
  EXPECT_LT(SafePrint(full.get(), "%s\n", "text"), 0);
}

static_assert(noexcept(SafePrint(nullptr, "")));
