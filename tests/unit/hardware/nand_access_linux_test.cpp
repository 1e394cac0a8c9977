#include "lib/hardware/nand_access_linux.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "tests/unit/hardware/fake_mtd.h"
#include "tests/unit/support/aborts.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/emulation.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/throws.h"
#include "tests/unit/support/wrapped_calls.h"

// The request numbers are part of the kernel's interface. The argument of MEMREADOOB contains a pointer, so its number
// differs with the size of pointers.
static_assert(MEMGETINFO == 0x80204D01);
static_assert(MEMERASE == 0x40084D02);
static_assert(MEMREADOOB == (sizeof(void*) == 4 ? 0xC00C4D04 : 0xC0104D04));
static_assert(MEMGETBADBLOCK == 0x40084D0B);
static_assert(MEMSETBADBLOCK == 0x40084D0C);

namespace test_hardware {
namespace {

using test_platform::CountDescriptors;
using test_platform::ExpectErrno;
using test_platform::ExpectRuntimeError;
using test_support::ReadTextFile;

constexpr std::uint32_t kBlock = 4096;
constexpr std::uint32_t kSize = 4 * kBlock;
constexpr std::uint32_t kPage = 512;
constexpr std::uint32_t kSpare = 16;
// The offset of the last block of the largest possible device.
constexpr std::uint32_t kFarBlock = 0xFFFFF000;

// Returns the alphabet repeated over the whole device, in lower case in even blocks and in upper case in odd blocks.
std::string Contents() {
  std::string contents;
  for (std::uint32_t i = 0; i < kSize; ++i) {
    contents += static_cast<char>((i / kBlock % 2 == 0 ? 'a' : 'A') + i % 26);
  }
  return contents;
}

std::string ReadText(NandAccess& nand, std::uint32_t offset, std::size_t length) {
  std::string text(length, '?');
  text.resize(nand.Read(offset, text.data(), length));
  return text;
}

// A NAND device of four blocks in an ordinary file.
class LinuxNandAccessTest : public testing::Test {
protected:
  LinuxNandAccessTest() { test_support::WriteTextFile(m_path, Contents()); }

  std::shared_ptr<NandAccess> Open() {
    auto nand = LinuxNandAccessImpl(m_path, kSize);
    m_mtd.TakeRequests();
    return nand;
  }

  test_support::TempDir m_dir;
  const std::string m_path = m_dir / "mtd1";
  FakeMtd m_mtd{kSize, kBlock, kPage, kSpare};
};

TEST_F(LinuxNandAccessTest, OpensTheDeviceForSynchronousWritingAndReadsItsGeometry) {
  const auto nand = LinuxNandAccessImpl(m_path, kSize);
  const int flags = ::fcntl(m_mtd.descriptor, F_GETFL);
  EXPECT_EQ(flags & O_ACCMODE, O_RDWR);
  EXPECT_EQ(flags & O_SYNC, O_SYNC);
  EXPECT_EQ(::fcntl(m_mtd.descriptor, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(m_mtd.TakeRequests(), "MEMGETINFO");
  EXPECT_EQ(ReadTextFile(m_path), Contents());
  EXPECT_EQ(nand->GetEraseSize(), kBlock);
  EXPECT_EQ(nand->GetWriteSize(), kPage);
  EXPECT_EQ(nand->GetOobSize(), kSpare);
  EXPECT_EQ(nand->GetTotalSize(), kSize);
}

TEST_F(LinuxNandAccessTest, ClosesTheDeviceWithTheLastOwner) {
  const int descriptors = CountDescriptors();
  auto first = Open();
  auto second = first;
  first.reset();
  EXPECT_EQ(CountDescriptors(), descriptors + 1);
  second.reset();
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(LinuxNandAccessTest, UsesTheSmallerOfTheGivenSizeAndTheDeviceSize) {
  for (const std::size_t size : {std::size_t{kSize}, std::size_t{kSize + 1}, SIZE_MAX / 2 + 1, SIZE_MAX}) {
    EXPECT_EQ(LinuxNandAccessImpl(m_path, size)->GetTotalSize(), kSize) << size;
  }
  for (const std::uint32_t size : {kSize - kBlock, kBlock, 0U}) {
    EXPECT_EQ(LinuxNandAccessImpl(m_path, size)->GetTotalSize(), size);
  }
}

TEST_F(LinuxNandAccessTest, AbortsForSizesThatAreNotAWholeNumberOfBlocks) {
  const struct {
    std::size_t size;
    std::uint32_t device_size;
    std::uint32_t erase_size;
    const char* assertion;
  } rows[] = {
      {1, kSize, kBlock, "m_total_size % m_erase_size == 0"},
      {kSize - kPage, kSize, kBlock, "m_total_size % m_erase_size == 0"},
      {SIZE_MAX, kSize + kPage, kBlock, "m_total_size % m_erase_size == 0"},
      {SIZE_MAX, kSize, 0, "m_erase_size != 0"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.size);
    m_mtd.info.size = row.device_size;
    m_mtd.info.erasesize = row.erase_size;
    EXPECT_ASSERTION(LinuxNandAccessImpl(m_path, row.size), row.assertion, "lib/hardware/nand_access_linux.cpp",
                     ".*LinuxNandAccess\\(.*\\)");
  }
}

TEST_F(LinuxNandAccessTest, MakesRequestsAndThrowsWhenTheDeviceRefusesThem) {
  const struct {
    unsigned long request;
    std::function<void(NandAccess&)> call;
    std::string recorded;
  } rows[] = {
      {MEMGETBADBLOCK, [](NandAccess& nand) { EXPECT_FALSE(nand.IsBadBlock(kBlock)); }, "MEMGETBADBLOCK 4096"},
      {MEMSETBADBLOCK, [](NandAccess& nand) { nand.MarkBadBlock(kFarBlock); }, "MEMSETBADBLOCK 4294963200"},
      {MEMGETBADBLOCK, [](NandAccess& nand) { EXPECT_TRUE(nand.IsBadBlock(kFarBlock)); }, "MEMGETBADBLOCK 4294963200"},
      {MEMREADOOB, [](NandAccess& nand) { EXPECT_TRUE(nand.IsOobErased(kFarBlock)); }, "MEMREADOOB 4294963200 16"},
      {MEMERASE, [](NandAccess& nand) { nand.EraseBlock(kFarBlock); }, "MEMERASE 4294963200 4096"},
  };
  const auto nand = Open();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.recorded);
    row.call(*nand);
    EXPECT_EQ(m_mtd.TakeRequests(), row.recorded);
    m_mtd.Fail(row.request, EPERM);
    ExpectErrno(EPERM, "Operation not permitted (1)", [&] { row.call(*nand); });
    m_mtd.Fail(0, 0);
  }
}

TEST_F(LinuxNandAccessTest, TreatsAnyAnswerExceptZeroAsABadBlock) {
  const auto nand = Open();
  m_mtd.bad_blocks = {0};
  for (const int answer : {1, 2, 256, 65536, INT_MAX}) {
    m_mtd.bad_block_answer = answer;
    EXPECT_TRUE(nand->IsBadBlock(0)) << answer;
  }
}

TEST_F(LinuxNandAccessTest, SpareAreaIsErasedIfItHasNoOtherBytes) {
  const auto nand = Open();
  for (std::size_t i = 0; i < kSpare; ++i) {
    m_mtd.spare.assign(kSpare, 0xFF);
    m_mtd.spare[i] = 0xFE;
    EXPECT_FALSE(nand->IsOobErased(kPage)) << i;
  }
  m_mtd.spare.assign(kSpare, 0);
  EXPECT_FALSE(nand->IsOobErased(0));
  // A page without a spare area.
  m_mtd.info.oobsize = 0;
  EXPECT_TRUE(Open()->IsOobErased(0));
  EXPECT_EQ(m_mtd.TakeRequests(), "");
}

TEST_F(LinuxNandAccessTest, ReadsAtMostOneBlock) {
  const auto nand = Open();
  const struct {
    const char* name;
    std::uint32_t offset;
    std::size_t length;
    std::size_t read;
  } rows[] = {
      {"one block", 0, kBlock, kBlock},
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
  for (const std::size_t longest_read : {std::size_t{1000}, SIZE_MAX}) {
    m_mtd.longest_read = longest_read;
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name + std::string(" in reads of at most ") + std::to_string(longest_read));
      std::string buffer(kSize, '?');
      ASSERT_EQ(nand->Read(row.offset, buffer.data(), row.length), row.read);
      EXPECT_EQ(buffer.substr(0, row.read), Contents().substr(row.offset, row.read));
      EXPECT_EQ(buffer.substr(row.read), std::string(buffer.size() - row.read, '?'));
    }
  }
  EXPECT_EQ(m_mtd.TakeRequests(), "");
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
  // One write(2) writes at most this number of bytes.
  for (const std::size_t longest_write : {std::size_t{SSIZE_MAX}, std::size_t{1000}}) {
    const wrapped_calls::ReplacedWrite write([longest_write](int fd, const void* data, std::size_t length) {
      return static_cast<long>(::write(fd, data, std::min(length, longest_write)));
    });
    test_support::WriteTextFile(m_path, Contents());
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name + std::string(" in writes of at most ") + std::to_string(longest_write));
      std::string expected = ReadTextFile(m_path);
      expected.replace(row.offset, row.data.size(), row.data);
      EXPECT_EQ(nand->Write(row.offset, row.data.data(), row.data.size()), row.data.size());
      EXPECT_EQ(ReadTextFile(m_path), expected);
    }
  }
  EXPECT_EQ(m_mtd.TakeRequests(), "");
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

TEST_F(LinuxNandAccessTest, ThrowsWhenTheDeviceCannotBeOpened) {
  const int descriptors = CountDescriptors();
  const std::string missing = m_dir / "mtd9";
  ExpectErrno(ENOENT, missing + ": No such file or directory (2)", [&] { LinuxNandAccessImpl(missing, kSize); });
  EXPECT_EQ(m_mtd.TakeRequests(), "");
  m_mtd.Fail(MEMGETINFO, ENODEV);
  ExpectErrno(ENODEV, "No such device (19)", [&] { LinuxNandAccessImpl(m_path, kSize); });
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST(LinuxNandAccess, RefusesAFileThatIsNotADevice) {
  if (test_support::kEmulated) {
    GTEST_SKIP() << "the emulator does not support the requests of NAND devices: they fail with ENOSYS";
  }
  ExpectErrno(ENOTTY, "Inappropriate ioctl for device (25)", [] { LinuxNandAccessImpl("/dev/null", kSize); });
}

TEST_F(LinuxNandAccessTest, ThrowsWhenSeekingFails) {
  const std::string fifo = m_dir / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const auto nand = LinuxNandAccessImpl(fifo, kSize);
  char buffer[8] = {};
  ExpectErrno(ESPIPE, "NandBlockAccess::Read: Illegal seek (29)", [&] { nand->Read(0, buffer, 8); });
  ExpectErrno(ESPIPE, "NandBlockAccess::Write: Illegal seek (29)", [&] { nand->Write(0, buffer, 8); });
  ExpectErrno(ESPIPE, "NandBlockAccess::Write: Illegal seek (29)", [&] { nand->Write(0, buffer, 0); });

  // /dev/full accepts every seek, but its offset stays 0.
  const auto full = LinuxNandAccessImpl("/dev/full", kSize);
  ExpectRuntimeError("NandBlockAccess::Read seek failure", [&] { full->Read(1, buffer, 8); });
  ExpectRuntimeError("NandBlockAccess::Write seek failure", [&] { full->Write(kFarBlock, buffer, 8); });
  ExpectRuntimeError("NandBlockAccess::Write seek failure", [&] { full->Write(1, buffer, 0); });
  EXPECT_EQ(full->Read(0, buffer, 8), 8U);
}

TEST_F(LinuxNandAccessTest, ThrowsWhenReadingOrWritingFails) {
  char buffer[8] = {};
  // Nothing is mapped at address 0.
  const auto unreadable = LinuxNandAccessImpl("/proc/self/mem", kSize);
  ExpectErrno(EIO, "read_all_throw: Input/output error (5)", [&] { unreadable->Read(0, buffer, 8); });
  const auto full = LinuxNandAccessImpl("/dev/full", kSize);
  ExpectErrno(ENOSPC, "No space left on device (28)", [&] { full->Write(0, buffer, 8); });
  EXPECT_EQ(full->Write(0, buffer, 0), 0U);
}

}  // namespace
}  // namespace test_hardware
