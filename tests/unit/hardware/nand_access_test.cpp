#include "lib/hardware/nand_access.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/hardware/fake_nand.h"

namespace test_hardware {
namespace {

TEST(NandAccess, ErasesTheGoodBlocksThatBeginInARange) {
  constexpr std::uint32_t kQuarter = 0x40000000;
  const struct {
    const char* name;
    std::uint32_t block_size;
    std::uint32_t offset;
    std::uint32_t length;
    std::string calls;
  } rows[] = {
      {"nothing", 100, 0, 0, ""},
      {"nothing in the middle", 100, 300, 0, ""},
      {"one block", 100, 0, 100, "IsBadBlock 0, EraseBlock 0"},
      {"one byte", 100, 100, 1, "IsBadBlock 100, EraseBlock 100"},
      {"bad block", 100, 200, 100, "IsBadBlock 200"},
      {"one byte more than a block", 100, 0, 101, "IsBadBlock 0, EraseBlock 0, IsBadBlock 100, EraseBlock 100"},
      {"one byte less than a block", 100, 300, 99, "IsBadBlock 300, EraseBlock 300"},
      {"relative to the offset", 100, 350, 150, "IsBadBlock 350, EraseBlock 350, IsBadBlock 450, EraseBlock 450"},
      {"bad block in the middle", 100, 100, 300,
       "IsBadBlock 100, EraseBlock 100, IsBadBlock 200, IsBadBlock 300, EraseBlock 300"},
      {"to the end of the largest device", kQuarter, kQuarter, 3 * kQuarter,
       "IsBadBlock 1073741824, EraseBlock 1073741824, IsBadBlock 2147483648, IsBadBlock 3221225472, "
       "EraseBlock 3221225472"},
      {"past the end of the largest device", kQuarter, 3 * kQuarter, 3 * kQuarter,
       "IsBadBlock 3221225472, EraseBlock 3221225472"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FakeNand nand(row.block_size, 0xFFFFFFFF);
    nand.MarkBadBlock(2 * row.block_size);
    nand.EraseRange(row.offset, row.length);
    EXPECT_EQ(nand.TakeCalls(), row.calls);
  }
}

TEST(NandAccess, ErasesTheGoodBlocksOfTheWholeDevice) {
  FakeNand nand(100, 300);
  nand.EraseAll();
  EXPECT_EQ(nand.TakeCalls(),
            "IsBadBlock 0, EraseBlock 0, IsBadBlock 100, EraseBlock 100, IsBadBlock 200, EraseBlock 200");
  for (const std::uint32_t block : {0U, 100U, 200U}) {
    nand.MarkBadBlock(block);
  }
  nand.EraseAll();
  EXPECT_EQ(nand.TakeCalls(), "IsBadBlock 0, IsBadBlock 100, IsBadBlock 200");
  FakeNand empty(100, 0);
  empty.EraseAll();
  EXPECT_EQ(empty.TakeCalls(), "");
}

TEST(NandAccess, WriteBlockCallsWrite) {
  FakeNand nand(100, 300);
  EXPECT_EQ(nand.WriteBlock(100, "contents", 8), 8U);
  EXPECT_EQ(nand.TakeCalls(), "Write 100 8");
  EXPECT_EQ(nand.Contents(1).substr(0, 9), "contents\xFF");
}

}  // namespace
}  // namespace test_hardware
