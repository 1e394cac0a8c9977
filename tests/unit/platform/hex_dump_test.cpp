#include "lib/platform/hex_dump.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "tests/unit/platform/recording_trace.h"

using bramble::HexDump;
using test_platform::RecordingTrace;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string Address(const void* pointer) {
  char text[32];
  std::snprintf(text, sizeof text, "%p: ", pointer);
  return text;
}

class RefusingTrace : public bramble::BaseTrace {
public:
  void Emit(const std::string&) override { throw std::runtime_error("refused"); }
  void Flush() override {}
};

}  // namespace

TEST(HexDump, PadsTheSecondLineOfTwentyBytes) {
  const char data[] = "ABCDEFGHIJKLMNOPQRS~";
  RecordingTrace sink;
  HexDump(sink, data, 20);
  EXPECT_THAT(sink.texts,
              ElementsAre(Address(data) + "41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50 ABCDEFGHIJKLMNOP\n",
                          Address(data + 16) + "51 52 53 7e " + std::string(36, ' ') + "QRS~\n"));
}

TEST(HexDump, BreaksLinesAfterSixteenBytes) {
  const struct {
    const char* name;
    std::size_t length;
    std::size_t lines;
  } rows[] = {{"one", 1, 1},        {"fifteen", 15, 1}, {"sixteen", 16, 1},
              {"seventeen", 17, 2}, {"32", 32, 2},      {"33", 33, 3}};
  const std::string data(40, 'x');
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    RecordingTrace sink;
    HexDump(sink, data.data(), row.length);
    EXPECT_EQ(sink.texts.size(), row.lines);
    const std::string& last = sink.texts.back();
    EXPECT_EQ(last.size() - last.find(": "), 2 + 16 * 3 + (row.length - 1) % 16 + 1 + 1) << last;
  }
}

TEST(HexDump, EmitsNothingForAnEmptyRange) {
  RecordingTrace sink;
  HexDump(sink, nullptr, 0);
  HexDump(sink, "x", 0);
  EXPECT_THAT(sink.texts, IsEmpty());
}

TEST(HexDump, ShowsWhatIsNotPrintableAsDots) {
  const unsigned char data[] = {0, 31, 32, 126, 127, 128, 255, '%', '\n'};
  RecordingTrace sink;
  HexDump(sink, data, sizeof data);
  EXPECT_THAT(sink.texts,
              ElementsAre(Address(data) + "00 1f 20 7e 7f 80 ff 25 0a " + std::string(21, ' ') + ".. ~...%.\n"));
}

TEST(HexDump, EmitsTheTitleFirst) {
  const struct {
    const char* name;
    const char* title;
    const char* emitted;
  } rows[] = {
      {"plain", "Title", "Title\n"},
      {"with line feed", "Title\n", "Title\n"},
      {"empty", "", ""},
      {"line feed alone", "\n", "\n"},
      {"line feed inside", "a\nb", "a\nb\n"},
      {"conversions", "%s %d 100%", "%s %d 100%\n"},
  };
  const char data[] = "Z";
  const std::string line = Address(data) + "5a " + std::string(45, ' ') + "Z\n";
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    RecordingTrace sink;
    HexDump(sink, row.title, data, 1);
    EXPECT_THAT(sink.texts, ElementsAre(row.emitted, line));
  }
}

TEST(HexDump, EmitsTheTitleOfAnEmptyRange) {
  RecordingTrace sink;
  HexDump(sink, "Title", nullptr, 0);
  EXPECT_THAT(sink.texts, ElementsAre("Title\n"));
}

TEST(HexDump, PassesOnWhatTheSinkThrows) {
  RefusingTrace sink;
  EXPECT_THROW(HexDump(sink, "x", 1), std::runtime_error);
  EXPECT_THROW(HexDump(sink, "Title", "x", 1), std::runtime_error);
}
