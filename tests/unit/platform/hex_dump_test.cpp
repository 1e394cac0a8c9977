#include "lib/platform/hex_dump.h"

#include "lib/platform/trace.h"
#include "tests/unit/platform/platform_test.h"

using namespace test_platform;
using testing::ElementsAre;

namespace {

class RecordingTrace : public BaseTrace {
public:
  void Emit(const std::string& text) override {
    if (refuses) {
      throw std::runtime_error("refused");
    }
    texts.push_back(text);
  }
  void Flush() override {}

  std::vector<std::string> texts;
  bool refuses = false;
};

std::string Address(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof text, "%p: ", pointer);
  return text;
}

}  // namespace

TEST(HexDump, StartsALineAfterEachSixteenBytes) {
  const char digits[] = "41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50 ";
  const char characters[] = "ABCDEFGHIJKLMNOPABCDEFGHIJKLMNOPA";
  for (const std::size_t length : {0U, 1U, 15U, 16U, 17U, 20U, 32U, 33U}) {
    SCOPED_TRACE(length);
    std::vector<std::string> lines;
    for (std::size_t offset = 0; offset < length; offset += 16) {
      const std::size_t count = std::min<std::size_t>(16, length - offset);
      lines.push_back(Address(characters + offset) + std::string(digits, 3 * count) +
                      std::string(3 * (16 - count), ' ') + std::string(characters, count) + "\n");
    }
    RecordingTrace sink;
    HexDump(sink, characters, length);
    EXPECT_EQ(sink.texts, lines);
  }
}

TEST(HexDump, ShowsBytesThatAreNotPrintableAsDots) {
  const unsigned char data[] = {0, 31, 32, 126, 127, 128, 255, '%', '\n'};
  RecordingTrace sink;
  HexDump(sink, data, sizeof data);
  EXPECT_THAT(sink.texts,
              ElementsAre(Address(data) + "00 1f 20 7e 7f 80 ff 25 0a " + std::string(21, ' ') + ".. ~...%.\n"));
}

TEST(HexDump, EmitsTheTitleFirst) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"plain", "Title", "Title\n"},
      {"with a newline", "Title\n", "Title\n"},
      {"empty", "", ""},
      {"newline alone", "\n", "\n"},
      {"newline inside", "a\nb", "a\nb\n"},
      {"conversions", "%s %d 100%", "%s %d 100%\n"},
  };
  const char data[] = "Z";
  for (const auto& [name, title, emitted] : rows) {
    SCOPED_TRACE(name);
    RecordingTrace sink;
    HexDump(sink, title, data, 1);
    HexDump(sink, title, nullptr, 0);
    EXPECT_THAT(sink.texts, ElementsAre(emitted, Address(data) + "5a " + std::string(45, ' ') + "Z\n", emitted));
  }
}

TEST(HexDump, PassesOnTheExceptionsOfTheSink) {
  RecordingTrace sink;
  sink.refuses = true;
  EXPECT_THROW(HexDump(sink, "x", 1), std::runtime_error);
  EXPECT_THROW(HexDump(sink, "Title", "x", 1), std::runtime_error);
}
