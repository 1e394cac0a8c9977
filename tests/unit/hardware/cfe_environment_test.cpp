#include "lib/hardware/cfe_environment.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "lib/platform/errno_exception.h"
#include "tests/unit/hardware/cfe_block.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/fake_nand.h"
#include "tests/unit/support/throws.h"

using test_hardware::EndRecord;
using test_hardware::Record;
using test_platform::ExpectErrno;
using test_platform::ExpectRuntimeError;
using test_support::CapturedStderr;
using test_support::FakeNand;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

constexpr char kNoEquals[] = "No equals sign in environment string\n";
constexpr char kCorrupt[] = "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n";

// Parses a buffer of exactly this size, so that a sanitizer notices a read after its end.
CfeEnvironment Parse(const std::string& bytes) {
  const std::vector<unsigned char> exact(bytes.begin(), bytes.end());
  return ParseCfeEnvironment(exact.data(), exact.size());
}

std::string Repeat(const std::string& text, std::size_t times) {
  std::string repeated;
  for (std::size_t i = 0; i < times; ++i) {
    repeated += text;
  }
  return repeated;
}

constexpr std::uint32_t kBlock = 64;

void Fill(FakeNand& nand, std::uint32_t offset, const std::string& bytes) {
  nand.Write(offset, bytes.data(), bytes.size());
  nand.ForgetCalls();
}

}  // namespace

TEST(CfeEnvironment, ParsesRecords) {
  const struct {
    const char* name;
    std::string bytes;
    CfeEnvironment expected;
    std::string printed;
  } rows[] = {
      {"one record", {"\x01\x04\x00\x41\x3D\x31\x00", 7}, {{"A", "1"}}, ""},
      {"no bytes", "", {}, ""},
      {"erased", Repeat("\xFF", 64), {}, ""},
      {"one erased byte", "\xFF", {}, ""},
      {"erased, then a record", "\xFF" + Record("A=1"), {}, ""},
      {"end at once", EndRecord(), {}, ""},
      {"end, then a record", EndRecord() + Record("A=1"), {}, ""},
      {"end, then junk", Record("A=1") + EndRecord() + "junk", {{"A", "1"}}, ""},
      {"two names", Record("B=2") + Record("A=1") + EndRecord(), {{"A", "1"}, {"B", "2"}}, ""},
      {"one name twice", Record("A=1") + Record("A=2") + EndRecord(), {{"A", "2"}}, ""},
      {"a value replaced by an empty one", Record("A=1") + Record("A=") + EndRecord(), {{"A", ""}}, ""},
      {"no equals sign", Record("AB") + Record("A=1") + EndRecord(), {{"A", "1"}}, kNoEquals},
      {"no equals sign, twice",
       Record("AB") + Record("A=1") + Record("A") + EndRecord(),
       {{"A", "1"}},
       Repeat(kNoEquals, 2)},
      {"empty value", Record("K=") + EndRecord(), {{"K", ""}}, ""},
      {"empty name", Record("=V") + EndRecord(), {{"", "V"}}, ""},
      {"empty name and value", Record("=") + EndRecord(), {{"", ""}}, ""},
      {"equals signs in the value", Record("A==b=c=") + EndRecord(), {{"A", "=b=c="}}, ""},
      {"names differ in case", Record("a=1") + Record("A=2"), {{"A", "2"}, {"a", "1"}}, ""},
      {"spaces are kept", Record(" A = 1 "), {{" A ", " 1 "}}, ""},
      {"NUL in name and value",
       Record(std::string("A\0B=1\0"
                          "2",
                          7)),
       {{std::string("A\0B", 3), std::string("1\0"
                                             "2",
                                             3)}},
       ""},
      {"bytes above 0x7F", Record("\xFF=\x80"), {{"\xFF", "\x80"}}, ""},
      {"flags are ignored", std::string("\x01\x04=A=1", 6) + EndRecord(), {{"A", "1"}}, ""},
      {"an equals sign in the flags does not count", std::string("\x01\x03=AB", 5) + EndRecord(), {}, kNoEquals},
      {"no text", Record("") + Record("A=1") + EndRecord(), {{"A", "1"}}, kNoEquals},
      {"length 0", std::string("\x01\x00", 2) + Record("A=1") + EndRecord(), {{"A", "1"}}, kNoEquals},
      {"length 0 at the end of the block", Record("A=1") + std::string("\x01\x00", 2), {{"A", "1"}}, kNoEquals},
      {"ends with the block", Record("A=1"), {{"A", "1"}}, ""},
      {"longest record",
       Record("A=" + std::string(252, 'v')) + Record("B=2"),
       {{"A", std::string(252, 'v')}, {"B", "2"}},
       ""},
      {"many records", Repeat(Record("A=1"), 20000) + Record("A=2") + EndRecord(), {{"A", "2"}}, ""},
  };
  CapturedStderr captured;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Parse(row.bytes), row.expected);
    EXPECT_EQ(captured.Take(), row.printed);
  }
}

TEST(CfeEnvironment, ThrowsForADamagedBlock) {
  const struct {
    const char* name;
    std::string bytes;
    const char* text;
  } rows[] = {
      {"erased after a record", Record("A=1") + "\xFF", "Unknown record type"},
      {"first type unknown", {"\x02\x01\x00\x00", 4}, "Unknown record type"},
      {"later type unknown", Record("A=1") + "\x02", "Unknown record type"},
      {"type 0x7F", "\x7F", "Unknown record type"},
      {"type 0x80", "\x80", "Unknown record type"},
      {"no room for the length", "\x01", "Record header truncated"},
      {"no room for a later length", Record("A=1") + "\x01", "Record header truncated"},
      {"length past the end", {"\x01\x05\x00\x41\x3D\x31", 6}, "Record content truncated"},
      {"longest length past the end", {"\x01\xFF\x00\x41\x3D\x31", 6}, "Record content truncated"},
      {"no content at all", "\x01\x01", "Record content truncated"},
      {"later content past the end", Record("A=1") + "\x01\x04_A=", "Record content truncated"},
  };
  const CapturedStderr silent;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ExpectRuntimeError(row.text, [&] { Parse(row.bytes); });
  }
}

TEST(CfeEnvironment, AcceptsANullPointerWithLengthZero) { EXPECT_THAT(ParseCfeEnvironment(nullptr, 0), IsEmpty()); }

TEST(CfeEnvironment, IsReadFromTheFirstGoodBlock) {
  for (std::uint32_t bad = 0; bad < 4; ++bad) {
    SCOPED_TRACE(bad);
    FakeNand nand(kBlock, 4 * kBlock);
    std::vector<std::string> calls;
    for (std::uint32_t block = 0; block < 4; ++block) {
      Fill(nand, block * kBlock, Record("BLOCK=" + std::to_string(block)) + EndRecord());
      if (block < bad) {
        nand.MarkBadBlock(block * kBlock);
      }
      if (block <= bad) {
        calls.push_back("IsBadBlock " + std::to_string(block * kBlock));
      }
    }
    calls.push_back("Read " + std::to_string(bad * kBlock) + " 64");
    EXPECT_THAT(ReadCfeEnvironment(nand), ElementsAre(Pair("BLOCK", std::to_string(bad))));
    EXPECT_EQ(nand.Calls(), calls);
  }
}

TEST(CfeEnvironment, IsReadOnlyFromTheFirstGoodBlock) {
  FakeNand nand(kBlock, 2 * kBlock);
  Fill(nand, kBlock, Record("A=1") + EndRecord());
  EXPECT_THAT(ReadCfeEnvironment(nand), IsEmpty()) << "erased";
  Fill(nand, 0, "\x02");
  ExpectRuntimeError("Unknown record type", [&] { ReadCfeEnvironment(nand); });
  EXPECT_THAT(nand.Calls(), ElementsAre("IsBadBlock 0", "Read 0 64"));
}

TEST(CfeEnvironment, ThrowsWhenAllBlocksAreBad) {
  FakeNand nand(kBlock, 2 * kBlock);
  nand.MarkBadBlock(0);
  nand.MarkBadBlock(kBlock);
  ExpectRuntimeError("All CFE environment NAND blocks are bad", [&] { ReadCfeEnvironment(nand); });
  EXPECT_THAT(nand.Calls(), ElementsAre("IsBadBlock 0", "IsBadBlock 64"));
}

TEST(CfeEnvironment, ThrowsForAPartitionWithoutBlocks) {
  FakeNand nand(kBlock, 0);
  ExpectRuntimeError("All CFE environment NAND blocks are bad", [&] { ReadCfeEnvironment(nand); });
  EXPECT_THAT(nand.Calls(), IsEmpty());
}

TEST(CfeEnvironment, ThrowsWhenAllBlocksOfTheLargestDeviceAreBad) {
  // The offset after the last block does not fit in 32 bits.
  FakeNand nand(0x80000000, 0xFFFFFFFF);
  nand.MarkBadBlock(0);
  nand.MarkBadBlock(0x80000000);
  ExpectRuntimeError("All CFE environment NAND blocks are bad", [&] { ReadCfeEnvironment(nand); });
  EXPECT_THAT(nand.Calls(), ElementsAre("IsBadBlock 0", "IsBadBlock 2147483648"));
}

TEST(CfeEnvironment, ParsesOnlyTheBytesThatWereRead) {
  FakeNand nand(kBlock, kBlock);
  Fill(nand, 0, Record("A=1") + EndRecord());
  nand.LimitReads(5);
  ExpectRuntimeError("Record content truncated", [&] { ReadCfeEnvironment(nand); });
  nand.LimitReads(6);
  EXPECT_THAT(ReadCfeEnvironment(nand), ElementsAre(Pair("A", "1")));
  nand.LimitReads(0);
  EXPECT_THAT(ReadCfeEnvironment(nand), IsEmpty());
}

TEST(CfeEnvironment, PassesOnExceptionsOfRead) {
  FakeNand nand(kBlock, kBlock);
  nand.OnRead([] { throw bramble::ErrnoException(EIO, "read_all_throw"); });
  ExpectErrno(EIO, "read_all_throw: Input/output error (5)", [&] { ReadCfeEnvironment(nand); });
}

TEST(CfeEnvironmentOrEmpty, ReturnsTheEnvironment) {
  const CapturedStderr silent;
  EXPECT_THAT(ReadCfeEnvironmentOrEmpty([] { return CfeEnvironment{{"A", "1"}}; }), ElementsAre(Pair("A", "1")));
  EXPECT_THAT(ReadCfeEnvironmentOrEmpty([] { return CfeEnvironment(); }), IsEmpty());
}

TEST(CfeEnvironmentOrEmpty, IsEmptyAndPrintsALineWhenReadingFails) {
  const struct {
    const char* name;
    CfeEnvironment (*read)();
  } rows[] = {
      {"runtime error", [] { return Parse("\x02"); }},
      {"system call", []() -> CfeEnvironment { throw bramble::ErrnoException(EIO); }},
      {"no memory", []() -> CfeEnvironment { throw std::bad_alloc(); }},
      {"text with conversions", []() -> CfeEnvironment { throw std::runtime_error("100%s"); }},
      {"a number", []() -> CfeEnvironment { throw 7; }},
  };
  CapturedStderr captured;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_THAT(ReadCfeEnvironmentOrEmpty(row.read), IsEmpty());
    EXPECT_EQ(captured.Take(), kCorrupt);
  }
}

TEST(CfeEnvironmentOrEmpty, IsEmptyWhenADamagedRecordFollowsGoodOnes) {
  CapturedStderr captured;
  EXPECT_THAT(ReadCfeEnvironmentOrEmpty([] { return Parse(Record("A=1") + Record("B") + "\xFF"); }), IsEmpty());
  EXPECT_EQ(captured.Take(), std::string(kNoEquals) + kCorrupt);
}
