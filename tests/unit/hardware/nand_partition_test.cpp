#include "lib/hardware/nand_partition.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "tests/unit/support/bound_over.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/throws.h"

using test_platform::ExpectErrno;
using test_platform::ExpectRuntimeError;
using test_support::TempDir;
using test_support::WriteTextFile;

namespace {

const std::string kHeader = "dev:    size   erasesize  name\n";

const std::string kTable = kHeader +
                           "mtd0: 00200000 00020000 \"flash0.boot\"\n"
                           "mtd1: 00100000 00020000 \"flash0.nvram\"\n"
                           "mtd2: ffe00000 00040000 \"flash0\"\n";

void ExpectNotFound(const std::string& table, const std::string& name) {
  ExpectRuntimeError("Failed to find NAND partition named '" + name + "'", [&] { ParseNandPartition(table, name); });
}

}  // namespace

TEST(NandPartition, IsFoundByName) {
  const struct {
    const char* name;
    const char* path;
    std::uint32_t size;
    std::uint32_t erase_size;
  } rows[] = {
      {"flash0.boot", "/dev/mtd0", 0x200000, 0x20000},
      {"flash0.nvram", "/dev/mtd1", 0x100000, 0x20000},
      {"flash0", "/dev/mtd2", 0xFFE00000, 0x40000},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const NandPartition partition = ParseNandPartition(kTable, row.name);
    EXPECT_EQ(partition.path, row.path);
    EXPECT_EQ(partition.size, row.size);
    EXPECT_EQ(partition.erase_size, row.erase_size);
    EXPECT_EQ(partition.name, row.name);
  }
}

TEST(NandPartition, IsNotFoundInATableWithoutIt) {
  const struct {
    const char* name;
    std::string table;
    const char* wanted;
  } rows[] = {
      {"header only", kHeader, "flash0.nvram"},
      {"empty table", "", "flash0.nvram"},
      {"header cut off", "dev: size", "flash0.nvram"},
      {"beginning of a name", kHeader + "mtd0: 1 1 \"flash0.nvram\"\n", "flash0"},
      {"name with an extra suffix", kHeader + "mtd0: 1 1 \"flash0\"\n", "flash0.nvram"},
      {"end of a name", kTable, "nvram"},
      {"upper case", kTable, "FLASH0"},
      {"name with its quotes", kTable, "\"flash0\""},
      {"empty name", kTable, ""},
      {"device instead of the name", kTable, "mtd1:"},
      {"fourth word missing", kHeader + "mtd0: 1 1", "1"},
      {"size is not a number", kHeader + "mtd0: size 1 \"a\"\n", "a"},
      {"erase size is not a number", kHeader + "mtd0: 1 size \"a\"\n", "a"},
      {"row after a bad one", kHeader + "mtd0: size 1 \"a\"\nmtd1: 1 1 \"b\"\n", "b"},
      {"after a name with a space", kHeader + "mtd0: 1 1 \"a b\"\nmtd1: 1 1 \"c\"\n", "c"},
      {"text with conversions", kTable, "100%d%s"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ExpectNotFound(row.table, row.wanted);
  }
}

TEST(NandPartition, IsFoundWithAnyQuotesAroundItsName) {
  const struct {
    const char* name;
    const char* quoted;
    const char* wanted;
  } rows[] = {
      {"both quotes", "\"a\"", "a"}, {"opening quote", "\"a", "a"},         {"closing quote", "a\"", "a"},
      {"no quotes", "a", "a"},       {"two of each", "\"\"a\"\"", "\"a\""}, {"empty name", "\"\"", ""},
      {"one quote", "\"", ""},       {"quote within", "\"a\"b\"", "a\"b"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const NandPartition partition = ParseNandPartition(kHeader + "mtd5: 10 8 " + row.quoted + "\n", row.wanted);
    EXPECT_EQ(partition.name, row.wanted);
    EXPECT_EQ(partition.path, "/dev/mtd5");
  }
}

TEST(NandPartition, PathOmitsOnlyTheFinalColonOfTheDevice) {
  EXPECT_EQ(ParseNandPartition(kHeader + "mtd12 10 8 \"a\"", "a").path, "/dev/mtd12");
  EXPECT_EQ(ParseNandPartition(kHeader + "m:td:: 10 8 \"a\"", "a").path, "/dev/m:td:");
  EXPECT_EQ(ParseNandPartition(kHeader + ": 10 8 \"a\"", "a").path, "/dev/");
}

TEST(NandPartition, SizesAreHexadecimal) {
  const NandPartition partition = ParseNandPartition(kHeader + "mtd0: FFFFFFFF 0x10 \"a\"\n", "a");
  EXPECT_EQ(partition.size, 0xFFFFFFFF);
  EXPECT_EQ(partition.erase_size, 16U);
}

TEST(NandPartition, IsFoundAfterAPartitionOfMoreThan32Bits) {
  const std::string table =
      kHeader + "mtd0: 123456789 100000000 \"a\"\nmtd1: fffffffffffffffff 8 \"b\"\nmtd2: 10 8 \"c\"\n";
  const NandPartition large = ParseNandPartition(table, "a");
  EXPECT_EQ(large.size, 0xFFFFFFFF);
  EXPECT_EQ(large.erase_size, 0xFFFFFFFF);
  const NandPartition after = ParseNandPartition(table, "c");
  EXPECT_EQ(after.size, 16U);
  EXPECT_EQ(after.erase_size, 8U);
  ExpectNotFound(kHeader + "mtd0: 10 fffffffff", "");
  ExpectNotFound(kHeader + "mtd0: 10 ", "");
}

TEST(NandPartition, IsTheFirstOfSeveralWithTheSameName) {
  EXPECT_EQ(ParseNandPartition(kHeader + "mtd3: 10 8 \"a\"\nmtd4: 20 8 \"a\"\n", "a").path, "/dev/mtd3");
}

TEST(NandPartition, IsFoundBeforeABadRow) {
  EXPECT_EQ(ParseNandPartition(kHeader + "mtd3: 10 8 \"a\"\njunk", "a").path, "/dev/mtd3");
}

TEST(NandPartition, IsReadWordByWord) {
  EXPECT_EQ(ParseNandPartition("d s e n mtd3: 10\n\n8 \t \"a\" mtd4: 20 8 \"b\"", "b").path, "/dev/mtd4");
}

TEST(NandPartitionTable, IsReadFromAFile) {
  const TempDir dir;
  WriteTextFile(dir / "mtd", kTable);
  EXPECT_EQ(FindNandPartition("flash0", (dir / "mtd").c_str()).path, "/dev/mtd2");
  ExpectRuntimeError("Failed to find NAND partition named 'flash1'",
                     [&] { FindNandPartition("flash1", (dir / "mtd").c_str()); });
}

TEST(NandPartitionTable, ThrowsWhenItCannotBeRead) {
  const TempDir dir;
  const std::string path = dir / "mtd";
  ExpectErrno(ENOENT, path + ": No such file or directory (2)", [&] { FindNandPartition("a", path.c_str()); });
}

TEST(NandPartitionTable, IsProcMtdByDefault) {
  const TempDir proc;
  const test_support::BoundOver bound(proc.Path(), "/proc");
  ExpectErrno(ENOENT, "/proc/mtd: No such file or directory (2)", [] { FindNandPartition("flash0"); });
  WriteTextFile(proc / "mtd", kTable);
  EXPECT_EQ(FindNandPartition("flash0").path, "/dev/mtd2");
}
