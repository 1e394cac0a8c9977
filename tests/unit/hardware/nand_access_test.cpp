#include "lib/hardware/nand_access.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/unit/support/fake_nand.h"

using test_support::FakeNand;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(NandAccess, ErasesTheBlocksThatBeginInARange) {
  const struct {
    const char* name;
    std::uint32_t offset;
    std::uint32_t length;
    std::vector<std::string> calls;
  } rows[] = {
      {"nothing", 0, 0, {}},
      {"nothing in the middle", 200, 0, {}},
      {"one block", 0, 100, {"IsBadBlock 0", "EraseBlock 0"}},
      {"one byte", 100, 1, {"IsBadBlock 100", "EraseBlock 100"}},
      {"two blocks", 100, 200, {"IsBadBlock 100", "EraseBlock 100", "IsBadBlock 200", "EraseBlock 200"}},
      {"one byte more than a block", 0, 101, {"IsBadBlock 0", "EraseBlock 0", "IsBadBlock 100", "EraseBlock 100"}},
      {"one byte less than a block", 300, 99, {"IsBadBlock 300", "EraseBlock 300"}},
      {"relative to the offset", 50, 150, {"IsBadBlock 50", "EraseBlock 50", "IsBadBlock 150", "EraseBlock 150"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FakeNand nand(100, 500);
    nand.EraseRange(row.offset, row.length);
    EXPECT_EQ(nand.Calls(), row.calls);
  }
}

TEST(NandAccess, DoesNotEraseBadBlocksOfARange) {
  FakeNand nand(100, 500);
  for (std::uint32_t block = 0; block < 500; block += 100) {
    nand.Write(block, "data", 4);
  }
  nand.MarkBadBlock(200);
  nand.ForgetCalls();

  nand.EraseRange(100, 300);

  EXPECT_THAT(nand.Calls(),
              ElementsAre("IsBadBlock 100", "EraseBlock 100", "IsBadBlock 200", "IsBadBlock 300", "EraseBlock 300"));
  const bool erased[] = {false, true, false, true, false};
  for (std::uint32_t block = 0; block < 5; ++block) {
    EXPECT_EQ(nand.IsOobErased(block * 100), erased[block]) << block;
  }
}

TEST(NandAccess, ErasesNothingWhenAllBlocksAreBad) {
  FakeNand nand(100, 200);
  nand.MarkBadBlock(0);
  nand.MarkBadBlock(100);
  nand.EraseAll();
  EXPECT_THAT(nand.Calls(), ElementsAre("IsBadBlock 0", "IsBadBlock 100"));
}

TEST(NandAccess, ErasesAllBlocks) {
  FakeNand nand(100, 300);
  nand.EraseAll();
  EXPECT_THAT(nand.Calls(), ElementsAre("IsBadBlock 0", "EraseBlock 0", "IsBadBlock 100", "EraseBlock 100",
                                        "IsBadBlock 200", "EraseBlock 200"));
}

TEST(NandAccess, ErasesNothingOnADeviceWithoutBlocks) {
  FakeNand nand(100, 0);
  nand.EraseAll();
  EXPECT_THAT(nand.Calls(), IsEmpty());
}

TEST(NandAccess, ErasesUpToTheEndOfTheLargestDevice) {
  FakeNand nand(0x40000000, 0xFFFFFFFF);
  nand.EraseRange(0x40000000, 0xC0000000);
  EXPECT_THAT(nand.Calls(), ElementsAre("IsBadBlock 1073741824", "EraseBlock 1073741824", "IsBadBlock 2147483648",
                                        "EraseBlock 2147483648", "IsBadBlock 3221225472", "EraseBlock 3221225472"));
}

TEST(NandAccess, ErasesNothingAfterTheEndOfTheLargestDevice) {
  FakeNand nand(0x40000000, 0xFFFFFFFF);
  nand.EraseRange(0xC0000000, 0xC0000000);
  EXPECT_THAT(nand.Calls(), ElementsAre("IsBadBlock 3221225472", "EraseBlock 3221225472"));
}

TEST(NandAccess, WriteBlockCallsWrite) {
  FakeNand nand(100, 300);
  EXPECT_EQ(nand.WriteBlock(100, "contents", 8), 8U);
  EXPECT_THAT(nand.Calls(), ElementsAre("Write 100 8"));
  char buffer[8];
  EXPECT_EQ(nand.Read(100, buffer, 8), 8U);
  EXPECT_EQ(std::string(buffer, 8), "contents");
}
