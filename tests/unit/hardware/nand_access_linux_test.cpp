#include "lib/hardware/nand_access_linux.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/unit/hardware/fake_mtd.h"
#include "tests/unit/hardware/nand_access_linux_fixture.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/temp_dir.h"

using test_hardware::Contents;
using test_hardware::FakeMtd;
using test_hardware::kBlock;
using test_hardware::kFarBlock;
using test_hardware::kPage;
using test_hardware::kSize;
using test_hardware::kSpare;
using test_hardware::LinuxNandAccessTest;
using test_hardware::ReadText;
using test_platform::CountDescriptors;
using test_support::ReadTextFile;
using test_support::TempDir;
using test_support::WriteTextFile;
using testing::ElementsAre;
using testing::IsEmpty;

// The request numbers are part of the kernel's interface. The argument of MEMREADOOB contains a pointer, so its number
// differs with the size of pointers.
static_assert(MEMGETINFO == 0x80204D01);
static_assert(MEMERASE == 0x40084D02);
static_assert(MEMREADOOB == (sizeof(void*) == 4 ? 0xC00C4D04 : 0xC0104D04));
static_assert(MEMGETBADBLOCK == 0x40084D0B);
static_assert(MEMSETBADBLOCK == 0x40084D0C);

namespace {

bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

}  // namespace

TEST_F(LinuxNandAccessTest, OpensTheDeviceForSynchronousWriting) {
  const auto nand = LinuxNandAccessImpl(m_path, kSize);
  const int flags = ::fcntl(m_mtd.Descriptor(), F_GETFL);
  EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
  EXPECT_EQ(flags & O_SYNC, O_SYNC);
  EXPECT_EQ(::fcntl(m_mtd.Descriptor(), F_GETFD), FD_CLOEXEC);
  EXPECT_THAT(m_mtd.TakeRequests(), ElementsAre("MEMGETINFO"));
  EXPECT_EQ(ReadTextFile(m_path), Contents());
}

TEST_F(LinuxNandAccessTest, ClosesTheDeviceWithTheLastOwner) {
  const int descriptors = CountDescriptors();
  auto first = Open();
  auto second = first;
  first.reset();
  EXPECT_TRUE(IsOpen(m_mtd.Descriptor()));
  second.reset();
  EXPECT_FALSE(IsOpen(m_mtd.Descriptor()));
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(LinuxNandAccessTest, ReportsTheGeometry) {
  const auto nand = Open();
  EXPECT_EQ(nand->GetEraseSize(), kBlock);
  EXPECT_EQ(nand->GetWriteSize(), kPage);
  EXPECT_EQ(nand->GetOobSize(), kSpare);
  EXPECT_EQ(nand->GetTotalSize(), kSize);
}

TEST_F(LinuxNandAccessTest, UsesTheSmallerOfTheGivenSizeAndTheDeviceSize) {
  const struct {
    const char* name;
    std::size_t size;
    std::uint32_t total;
  } rows[] = {
      {"size of the device", kSize, kSize},
      {"larger", kSize + kBlock, kSize},
      {"larger by less than a block", kSize + 1, kSize},
      {"maximum", SIZE_MAX, kSize},
      {"largest power of two", SIZE_MAX - SIZE_MAX / 2, kSize},
      {"smaller", kSize - kBlock, kSize - kBlock},
      {"one block", kBlock, kBlock},
      {"none", 0, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(LinuxNandAccessImpl(m_path, row.size)->GetTotalSize(), row.total);
  }
}

TEST_F(LinuxNandAccessTest, ReportsBadBlocks) {
  const auto nand = Open();
  m_mtd.bad_blocks = {kBlock, kFarBlock};
  EXPECT_FALSE(nand->IsBadBlock(0));
  EXPECT_TRUE(nand->IsBadBlock(kBlock));
  EXPECT_TRUE(nand->IsBadBlock(kFarBlock));
  EXPECT_THAT(m_mtd.TakeRequests(),
              ElementsAre("MEMGETBADBLOCK 0", "MEMGETBADBLOCK 4096", "MEMGETBADBLOCK 4294963200"));
}

TEST_F(LinuxNandAccessTest, TreatsAnyAnswerExceptZeroAsABadBlock) {
  const auto nand = Open();
  m_mtd.bad_blocks = {0};
  for (const int answer : {1, 2, 256, 65536, INT_MAX}) {
    SCOPED_TRACE(answer);
    m_mtd.bad_block_answer = answer;
    EXPECT_TRUE(nand->IsBadBlock(0));
  }
}

TEST_F(LinuxNandAccessTest, MarksABlockBad) {
  const auto nand = Open();
  nand->MarkBadBlock(2 * kBlock);
  nand->MarkBadBlock(kFarBlock);
  EXPECT_THAT(m_mtd.TakeRequests(), ElementsAre("MEMSETBADBLOCK 8192", "MEMSETBADBLOCK 4294963200"));
  EXPECT_TRUE(nand->IsBadBlock(2 * kBlock));
}

TEST_F(LinuxNandAccessTest, ErasesABlock) {
  const auto nand = Open();
  nand->EraseBlock(kBlock);
  nand->EraseBlock(kFarBlock);
  EXPECT_THAT(m_mtd.TakeRequests(), ElementsAre("MEMERASE 4096 4096", "MEMERASE 4294963200 4096"));
}

TEST_F(LinuxNandAccessTest, SkipsBadBlocksWhenItErasesARange) {
  const auto nand = Open();
  m_mtd.bad_blocks = {kBlock};
  nand->EraseAll();
  EXPECT_THAT(m_mtd.TakeRequests(),
              ElementsAre("MEMGETBADBLOCK 0", "MEMERASE 0 4096", "MEMGETBADBLOCK 4096", "MEMGETBADBLOCK 8192",
                          "MEMERASE 8192 4096", "MEMGETBADBLOCK 12288", "MEMERASE 12288 4096"));
}

TEST_F(LinuxNandAccessTest, ReportsWhetherASpareAreaIsErased) {
  const auto nand = Open();
  EXPECT_TRUE(nand->IsOobErased(0));
  for (std::size_t i = 0; i < kSpare; ++i) {
    SCOPED_TRACE(i);
    m_mtd.spare.assign(kSpare, 0xFF);
    m_mtd.spare[i] = 0xFE;
    EXPECT_FALSE(nand->IsOobErased(kPage));
  }
  m_mtd.spare.assign(kSpare, 0);
  EXPECT_FALSE(nand->IsOobErased(kFarBlock));
  const std::vector<std::string> requests = m_mtd.TakeRequests();
  EXPECT_EQ(requests.front(), "MEMREADOOB 0 16");
  EXPECT_EQ(requests[1], "MEMREADOOB 512 16");
  EXPECT_EQ(requests.back(), "MEMREADOOB 4294963200 16");
}

TEST(LinuxNandAccess, TreatsPagesWithoutASpareAreaAsErased) {
  const TempDir dir;
  WriteTextFile(dir / "mtd", "");
  FakeMtd mtd({kSize, kBlock, kPage, 0});
  const auto nand = LinuxNandAccessImpl(dir / "mtd", kSize);
  mtd.TakeRequests();
  EXPECT_TRUE(nand->IsOobErased(0));
  EXPECT_THAT(mtd.TakeRequests(), IsEmpty());
}

TEST_F(LinuxNandAccessTest, Reads) {
  const auto nand = Open();
  const struct {
    const char* name;
    std::uint32_t offset;
    std::size_t length;
    std::size_t read;
  } rows[] = {
      {"one block", 0, kBlock, kBlock},
      {"no more than one block", 0, 2 * kBlock, kBlock},
      {"one byte more than a block", kBlock, kBlock + 1, kBlock},
      {"length of the device", 0, kSize, kBlock},
      {"one byte less than a block", kBlock, kBlock - 1, kBlock - 1},
      {"smaller offset again, in the middle", 100, 7, 7},
      {"across blocks", kBlock - 3, kBlock, kBlock},
      {"nothing", 5, 0, 0},
      {"to the end", kSize - 10, 10, 10},
      {"past the end", kSize - 10, kBlock, 10},
      {"at the end", kSize, kBlock, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::string buffer(kSize, '?');
    ASSERT_EQ(nand->Read(row.offset, buffer.data(), row.length), row.read);
    EXPECT_EQ(buffer.substr(0, row.read), Contents().substr(row.offset, row.read));
    EXPECT_EQ(buffer.substr(row.read), std::string(buffer.size() - row.read, '?'));
  }
  EXPECT_THAT(m_mtd.TakeRequests(), IsEmpty());
}

TEST_F(LinuxNandAccessTest, ContinuesAfterAShortRead) {
  const auto nand = Open();
  m_mtd.longest_read = 3;
  EXPECT_EQ(ReadText(*nand, kBlock, 10), Contents().substr(kBlock, 10));
  EXPECT_EQ(ReadText(*nand, kSize - 10, kBlock), Contents().substr(kSize - 10)) << "up to the end";
}

TEST_F(LinuxNandAccessTest, Writes) {
  const auto nand = Open();
  const struct {
    const char* name;
    std::uint32_t offset;
    std::string data;
  } rows[] = {
      {"a page", kPage, std::string(kPage, '#')},
      {"more than a block", kBlock, std::string(2 * kBlock, '*')},
      {"nothing", 0, ""},
      {"smaller offset again", 3, "three"},
      {"NUL bytes", kSize - 4, std::string(4, '\0')},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::string expected = ReadTextFile(m_path);
    expected.replace(row.offset, row.data.size(), row.data);
    EXPECT_EQ(nand->Write(row.offset, row.data.data(), row.data.size()), row.data.size());
    EXPECT_EQ(ReadTextFile(m_path), expected);
  }
  EXPECT_EQ(nand->WriteBlock(kBlock, "block", 5), 5U);
  EXPECT_EQ(ReadTextFile(m_path).substr(kBlock, 6), "block*");
  EXPECT_THAT(m_mtd.TakeRequests(), IsEmpty());
}

TEST_F(LinuxNandAccessTest, ReadsAndWritesAtTheEndOfTheLargestDevice) {
  const auto nand = Open();
  // The file is sparse, so it needs no space on the disk.
  ASSERT_EQ(::truncate(m_path.c_str(), off_t{kFarBlock} + kBlock), 0);
  EXPECT_EQ(nand->Write(kFarBlock + 16, "far", 3), 3U);
  EXPECT_EQ(ReadText(*nand, kFarBlock + 16, 3), "far");
  EXPECT_EQ(ReadText(*nand, kFarBlock, kBlock).size(), kBlock);
  EXPECT_EQ(ReadText(*nand, 0, kBlock), Contents().substr(0, kBlock));
}
