#include "lib/hardware/cfe_environment.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "lib/platform/errno_exception.h"
#include "tests/unit/hardware/device_files.h"
#include "tests/unit/hardware/fake_nand.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/throws.h"

namespace test_hardware {
namespace {

using test_platform::ExpectRuntimeError;
using test_support::CapturedStderr;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

constexpr char kNoEquals[] = "No equals sign in environment string\n";
constexpr std::uint32_t kBlock = 64;

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

void Fill(FakeNand& nand, std::uint32_t offset, const std::string& bytes) {
  nand.Write(offset, bytes.data(), bytes.size());
  nand.TakeCalls();
}

TEST(CfeEnvironment, ConsistsOfTheRecordsBeforeTheEnd) {
  const struct {
    const char* name;
    std::string bytes;
    CfeEnvironment environment;
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
      {"no equals sign", Record("AB") + Record("A=1") + Record("A"), {{"A", "1"}}, Repeat(kNoEquals, 2)},
      {"empty value", Record("K=") + EndRecord(), {{"K", ""}}, ""},
      {"empty name", Record("=V") + EndRecord(), {{"", "V"}}, ""},
      {"empty name and value", Record("=") + EndRecord(), {{"", ""}}, ""},
      {"equals signs in the value", Record("A==b=c=") + EndRecord(), {{"A", "=b=c="}}, ""},
      {"names differ in case", Record("a=1") + Record("A=2"), {{"A", "2"}, {"a", "1"}}, ""},
      {"spaces are kept", Record(" A = 1 "), {{" A ", " 1 "}}, ""},
      {"NUL in name and value", Record({"A\0=1\0", 5}), {{{"A\0", 2}, {"1\0", 2}}}, ""},
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
    EXPECT_EQ(Parse(row.bytes), row.environment);
    EXPECT_EQ(captured.Take(), row.printed);
  }
  EXPECT_THAT(ParseCfeEnvironment(nullptr, 0), IsEmpty());
}

TEST(CfeEnvironment, ThrowsForEveryUnknownTypeOfARecord) {
  for (int type = 2; type < 256; ++type) {
    SCOPED_TRACE(type);
    const std::string unknown(1, static_cast<char>(type));
    ExpectRuntimeError("Unknown record type", [&] { Parse(Record("A=1") + unknown); });
    if (type != 0xFF) {
      ExpectRuntimeError("Unknown record type", [&] { Parse(unknown + Record("A=1")); });
    }
  }
}

TEST(CfeEnvironment, ThrowsForEveryTruncationOfARecord) {
  std::string block;
  for (const std::string& record : {Record("PW_FORMAT=1"), Record("EMPTY="), Record("=nameless"), Record("=")}) {
    for (std::size_t length = 1; length < record.size(); ++length) {
      SCOPED_TRACE(block + record.substr(0, length));
      ExpectRuntimeError(length == 1 ? "Record header truncated" : "Record content truncated",
                         [&] { Parse(block + record.substr(0, length)); });
    }
    block += record;
  }
  EXPECT_THAT(Parse(block), ElementsAre(Pair("", ""), Pair("EMPTY", ""), Pair("PW_FORMAT", "1")));
}

TEST(CfeEnvironment, ThrowsForEveryLengthPastTheEndOfTheBlock) {
  CapturedStderr captured;
  for (const std::size_t available : {0U, 1U, 2U, 127U, 128U, 254U, 255U}) {
    for (std::size_t length = 0; length < 256; ++length) {
      SCOPED_TRACE(std::to_string(length) + " of " + std::to_string(available));
      const std::string block = "\x01" + std::string(1, static_cast<char>(length)) + std::string(available, '\0');
      if (length > available) {
        ExpectRuntimeError("Record content truncated", [&] { Parse(block); });
      } else {
        EXPECT_THAT(Parse(block), IsEmpty());
        EXPECT_EQ(captured.Take(), kNoEquals);
      }
    }
  }
}

TEST(CfeEnvironment, IsReadFromTheFirstGoodBlock) {
  for (std::uint32_t bad = 0; bad < 4; ++bad) {
    SCOPED_TRACE(bad);
    FakeNand nand(kBlock, 4 * kBlock);
    std::string calls;
    for (std::uint32_t block = 0; block < 4; ++block) {
      Fill(nand, block * kBlock, Record("BLOCK=" + std::to_string(block)) + EndRecord());
      if (block < bad) {
        nand.MarkBadBlock(block * kBlock);
      }
      calls += block <= bad ? "IsBadBlock " + std::to_string(block * kBlock) + ", " : "";
    }
    EXPECT_THAT(ReadCfeEnvironment(nand), ElementsAre(Pair("BLOCK", std::to_string(bad))));
    EXPECT_EQ(nand.TakeCalls(), calls + "Read " + std::to_string(bad * kBlock) + " 64");
  }
}

TEST(CfeEnvironment, IsNeverReadFromALaterBlock) {
  FakeNand nand(kBlock, 2 * kBlock);
  Fill(nand, kBlock, Record("A=1") + EndRecord());
  EXPECT_THAT(ReadCfeEnvironment(nand), IsEmpty()) << "erased";
  Fill(nand, 0, "\x02");
  ExpectRuntimeError("Unknown record type", [&] { ReadCfeEnvironment(nand); });
  EXPECT_EQ(nand.TakeCalls(), "IsBadBlock 0, Read 0 64");
}

TEST(CfeEnvironment, ThrowsWhenAllBlocksAreBad) {
  const struct {
    const char* name;
    std::uint32_t block_size;
    std::uint32_t total_size;
    const char* calls;
  } rows[] = {
      {"two blocks", 64, 128, "IsBadBlock 0, IsBadBlock 64"},
      {"no blocks", 64, 0, ""},
      // The offset after the last block does not fit in 32 bits.
      {"largest device", 0x80000000, 0xFFFFFFFF, "IsBadBlock 0, IsBadBlock 2147483648"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FakeNand nand(row.block_size, row.total_size);
    nand.MarkBadBlock(0);
    nand.MarkBadBlock(row.block_size);
    ExpectRuntimeError("All CFE environment NAND blocks are bad", [&] { ReadCfeEnvironment(nand); });
    EXPECT_EQ(nand.TakeCalls(), row.calls);
  }
}

TEST(CfeEnvironment, ConsistsOnlyOfTheBytesThatWereRead) {
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
  class : public FakeNand {
    using FakeNand::FakeNand;
    std::size_t Read(std::uint32_t, void*, std::size_t) override { throw bramble::ErrnoException(EIO, "read"); }
  } nand(kBlock, kBlock);
  test_platform::ExpectErrno(EIO, "read: Input/output error (5)", [&] { ReadCfeEnvironment(nand); });
}

TEST(CfeEnvironmentOrEmpty, ReturnsTheEnvironment) {
  const CapturedStderr silent;
  EXPECT_THAT(ReadCfeEnvironmentOrEmpty([] { return CfeEnvironment{{"A", "1"}}; }), ElementsAre(Pair("A", "1")));
  EXPECT_THAT(ReadCfeEnvironmentOrEmpty([] { return CfeEnvironment(); }), IsEmpty());
}

TEST(CfeEnvironmentOrEmpty, IsEmptyAndPrintsALineWhenReadingFails) {
  const std::string corrupt = "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n";
  const struct {
    const char* name;
    CfeEnvironment (*read)();
    std::string printed;
  } rows[] = {
      {"damaged record after good ones", [] { return Parse(Record("A=1") + Record("B") + "\xFF"); },
       kNoEquals + corrupt},
      {"system call", []() -> CfeEnvironment { throw bramble::ErrnoException(EIO); }, corrupt},
      {"no memory", []() -> CfeEnvironment { throw std::bad_alloc(); }, corrupt},
      {"text with conversions", []() -> CfeEnvironment { throw std::runtime_error("100%s"); }, corrupt},
      {"a number", []() -> CfeEnvironment { throw 7; }, corrupt},
  };
  CapturedStderr captured;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_THAT(ReadCfeEnvironmentOrEmpty(row.read), IsEmpty());
    EXPECT_EQ(captured.Take(), row.printed);
  }
}

}  // namespace
}  // namespace test_hardware
