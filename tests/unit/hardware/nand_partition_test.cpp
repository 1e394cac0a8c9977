#include "lib/hardware/nand_partition.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ios>
#include <sstream>
#include <string>

#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/throws.h"

namespace {

const std::string kHeader = "dev:    size   erasesize  name\n";

const std::string kTable = kHeader +
                           "mtd0: 00200000 00020000 \"flash0.boot\"\n"
                           "mtd1: 00100000 00020000 \"flash0.nvram\"\n"
                           "mtd2: ffe00000 00040000 \"flash0\"\n";

// The first is larger than 32 bits allow, and so is the second.
const std::string kLarge =
    kHeader + "mtd0: 123456789 100000000 \"a\"\nmtd1: fffffffffffffffff 8 \"b\"\nm2: 10 8 \"c\"\n";

TEST(NandPartition, IsFoundByItsWholeName) {
  const struct {
    const char* name;
    std::string table;
    const char* wanted;
    const char* found;
  } rows[] = {
      {"first", kTable, "flash0.boot", "/dev/mtd0 200000 20000"},
      {"second", kTable, "flash0.nvram", "/dev/mtd1 100000 20000"},
      {"last", kTable, "flash0", "/dev/mtd2 ffe00000 40000"},
      {"capital digits and a prefix", kHeader + "mtd0: FFFFFFFF 0x10 \"a\"\n", "a", "/dev/mtd0 ffffffff 10"},
      {"larger than 32 bits", kLarge, "a", "/dev/mtd0 ffffffff ffffffff"},
      {"after larger ones", kLarge, "c", "/dev/m2 10 8"},
      {"first of two with the same name", kHeader + "m3: 10 8 \"a\"\nm4: 20 8 \"a\"\n", "a", "/dev/m3 10 8"},
      {"before a bad row", kHeader + "m3: 10 8 \"a\"\njunk", "a", "/dev/m3 10 8"},
      {"word by word", "d s e n mtd3: 10\n\n8 \t \"a\" mtd4: 20 8 \"b\"", "b", "/dev/mtd4 20 8"},

      {"both quotes", kHeader + "m: 1 2 \"a\"\n", "a", "/dev/m 1 2"},
      {"opening quote", kHeader + "m: 1 2 \"a\n", "a", "/dev/m 1 2"},
      {"closing quote", kHeader + "m: 1 2 a\"\n", "a", "/dev/m 1 2"},
      {"no quotes", kHeader + "m: 1 2 a\n", "a", "/dev/m 1 2"},
      {"two of each quote", kHeader + "m: 1 2 \"\"a\"\"\n", "\"a\"", "/dev/m 1 2"},
      {"quote within", kHeader + "m: 1 2 \"a\"b\"\n", "a\"b", "/dev/m 1 2"},
      {"empty name", kHeader + "m: 1 2 \"\"\n", "", "/dev/m 1 2"},
      {"one quote", kHeader + "m: 1 2 \"\n", "", "/dev/m 1 2"},

      {"device without a colon", kHeader + "mtd12 1 2 \"a\"", "a", "/dev/mtd12 1 2"},
      {"device with several colons", kHeader + "m:td:: 1 2 \"a\"", "a", "/dev/m:td: 1 2"},
      {"device that is a colon", kHeader + ": 1 2 \"a\"", "a", "/dev/ 1 2"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const NandPartition partition = ParseNandPartition(row.table, row.wanted);
    std::ostringstream found;
    found << partition.path << std::hex << ' ' << partition.size << ' ' << partition.erase_size;
    EXPECT_EQ(found.str(), row.found);
    EXPECT_EQ(partition.name, row.wanted);
  }
}

TEST(NandPartition, IsNotFoundInATableWithoutIt) {
  const struct {
    const char* name;
    std::string table;
    std::string wanted;
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
      {"table that ends in an erase size of more than 32 bits", kHeader + "mtd0: 10 fffffffff", ""},
      {"table that ends in a size", kHeader + "mtd0: 10 ", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    test_platform::ExpectRuntimeError("Failed to find NAND partition named '" + row.wanted + "'",
                                      [&] { ParseNandPartition(row.table, row.wanted); });
  }
}

TEST(NandPartition, IsReadFromAFile) {
  const test_support::TempDir dir;
  const std::string path = dir / "mtd";
  test_platform::ExpectErrno(ENOENT, path + ": No such file or directory (2)",
                             [&] { FindNandPartition("flash0", path.c_str()); });
  test_support::WriteTextFile(path, kTable);
  EXPECT_EQ(FindNandPartition("flash0", path.c_str()).path, "/dev/mtd2");
}

}  // namespace
