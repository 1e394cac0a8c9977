// Tests of LinuxNandAccess with devices that fail.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

#include "lib/hardware/nand_access_linux.h"
#include "tests/unit/hardware/fake_mtd.h"
#include "tests/unit/hardware/nand_access_linux_fixture.h"
#include "tests/unit/support/aborts.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/emulation.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/throws.h"
#include "tests/unit/support/wrapped_calls.h"

using test_hardware::FakeMtd;
using test_hardware::kBlock;
using test_hardware::kFarBlock;
using test_hardware::kPage;
using test_hardware::kSize;
using test_hardware::kSpare;
using test_hardware::LinuxNandAccessTest;
using test_hardware::ReadText;
using test_platform::CountDescriptors;
using test_platform::ExpectErrno;
using test_platform::ExpectRuntimeError;
using test_support::TempDir;
using test_support::WriteTextFile;
using testing::IsEmpty;

TEST_F(LinuxNandAccessTest, ErrorNamesADeviceThatCannotBeOpened) {
  const std::string missing = m_dir / "mtd9";
  ExpectErrno(ENOENT, missing + ": No such file or directory (2)", [&] { LinuxNandAccessImpl(missing, kSize); });
  ExpectErrno(EISDIR, m_dir.Path() + ": Is a directory (21)", [&] { LinuxNandAccessImpl(m_dir.Path(), kSize); });
  EXPECT_THAT(m_mtd.TakeRequests(), IsEmpty());
}

TEST(LinuxNandAccess, RefusesAFileThatIsNotADevice) {
  if (test_support::kEmulated) {
    GTEST_SKIP() << "the emulator does not support the requests of NAND devices: they fail with ENOSYS";
  }
  const TempDir dir;
  WriteTextFile(dir / "file", "");
  const int descriptors = CountDescriptors();
  ExpectErrno(ENOTTY, "Inappropriate ioctl for device (25)", [&] { LinuxNandAccessImpl(dir / "file", kSize); });
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(LinuxNandAccessTest, AbortsWhenTheSizeIsNotAMultipleOfTheEraseSize) {
  for (const std::size_t size : {std::size_t{1}, std::size_t{kBlock - 1}, std::size_t{kSize - kPage}}) {
    SCOPED_TRACE(size);
    EXPECT_ASSERTION(LinuxNandAccessImpl(m_path, size), "m_total_size % m_erase_size == 0",
                     "lib/hardware/nand_access_linux.cpp", ".*LinuxNandAccess\\(.*\\)");
  }
}

TEST(LinuxNandAccess, AbortsWhenTheDeviceSizeIsNotAMultipleOfTheEraseSize) {
  const TempDir dir;
  WriteTextFile(dir / "mtd", "");
  const FakeMtd mtd({kSize + kPage, kBlock, kPage, kSpare});
  EXPECT_ASSERTION(LinuxNandAccessImpl(dir / "mtd", SIZE_MAX), "m_total_size % m_erase_size == 0",
                   "lib/hardware/nand_access_linux.cpp", ".*LinuxNandAccess\\(.*\\)");
}

TEST(LinuxNandAccess, AbortsWhenTheEraseSizeIsZero) {
  const TempDir dir;
  WriteTextFile(dir / "mtd", "");
  const FakeMtd mtd({kSize, 0, kPage, kSpare});
  EXPECT_ASSERTION(LinuxNandAccessImpl(dir / "mtd", SIZE_MAX), "m_erase_size != 0",
                   "lib/hardware/nand_access_linux.cpp", ".*LinuxNandAccess\\(.*\\)");
}

TEST_F(LinuxNandAccessTest, ThrowsWhenTheDeviceRefusesARequest) {
  const struct {
    const char* name;
    unsigned long request;
    std::function<void(NandAccess&)> call;
    int error_number;
    const char* text;
  } rows[] = {
      {"IsBadBlock", MEMGETBADBLOCK, [](NandAccess& nand) { nand.IsBadBlock(0); }, EINVAL, "Invalid argument (22)"},
      {"IsOobErased", MEMREADOOB, [](NandAccess& nand) { nand.IsOobErased(0); }, EOPNOTSUPP,
       "Operation not supported (95)"},
      {"MarkBadBlock", MEMSETBADBLOCK, [](NandAccess& nand) { nand.MarkBadBlock(0); }, EPERM,
       "Operation not permitted (1)"},
      {"EraseBlock", MEMERASE, [](NandAccess& nand) { nand.EraseBlock(0); }, EIO, "Input/output error (5)"},
      {"EraseRange, bad block request", MEMGETBADBLOCK, [](NandAccess& nand) { nand.EraseRange(0, 1); }, EIO,
       "Input/output error (5)"},
      {"EraseAll, erase request", MEMERASE, [](NandAccess& nand) { nand.EraseAll(); }, EROFS,
       "Read-only file system (30)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto nand = Open();
    m_mtd.Fail(row.request, row.error_number);
    ExpectErrno(row.error_number, row.text, [&] { row.call(*nand); });
    m_mtd.Fail(0, 0);
  }
}

TEST_F(LinuxNandAccessTest, ClosesTheDeviceAndThrowsWhenTheGeometryCannotBeRead) {
  const int descriptors = CountDescriptors();
  m_mtd.Fail(MEMGETINFO, ENODEV);
  ExpectErrno(ENODEV, "No such device (19)", [&] { LinuxNandAccessImpl(m_path, kSize); });
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST_F(LinuxNandAccessTest, ThrowsWhenSeekingFails) {
  const std::string fifo = m_dir / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const auto nand = LinuxNandAccessImpl(fifo, kSize);
  char buffer[8] = {};
  ExpectErrno(ESPIPE, "NandBlockAccess::Read: Illegal seek (29)", [&] { nand->Read(0, buffer, 8); });
  ExpectErrno(ESPIPE, "NandBlockAccess::Write: Illegal seek (29)", [&] { nand->Write(0, buffer, 8); });
  ExpectErrno(ESPIPE, "NandBlockAccess::Write: Illegal seek (29)", [&] { nand->Write(0, buffer, 0); });
}

TEST_F(LinuxNandAccessTest, ThrowsWhenASeekReturnsAnotherOffset) {
  // /dev/full accepts every seek, but its offset stays 0.
  const auto nand = LinuxNandAccessImpl("/dev/full", kSize);
  char buffer[8] = {};
  ExpectRuntimeError("NandBlockAccess::Read seek failure", [&] { nand->Read(1, buffer, 8); });
  ExpectRuntimeError("NandBlockAccess::Write seek failure", [&] { nand->Write(kFarBlock, buffer, 8); });
  ExpectRuntimeError("NandBlockAccess::Write seek failure", [&] { nand->Write(1, buffer, 0); });
  EXPECT_EQ(nand->Read(0, buffer, 8), 8U);
}

TEST_F(LinuxNandAccessTest, ThrowsWhenReadingFails) {
  // Nothing is mapped at address 0.
  const auto nand = LinuxNandAccessImpl("/proc/self/mem", kSize);
  char buffer[8];
  ExpectErrno(EIO, "read_all_throw: Input/output error (5)", [&] { nand->Read(0, buffer, 8); });
}

TEST_F(LinuxNandAccessTest, ThrowsWhenWritingFails) {
  const auto nand = LinuxNandAccessImpl("/dev/full", kSize);
  ExpectErrno(ENOSPC, "No space left on device (28)", [&] { nand->Write(0, "data", 4); });
  ExpectErrno(ENOSPC, "No space left on device (28)", [&] { nand->WriteBlock(0, "data", 4); });
  EXPECT_EQ(nand->Write(0, "", 0), 0U);
}

TEST_F(LinuxNandAccessTest, ContinuesAfterAShortWrite) {
  const auto nand = Open();
  const wrapped_calls::ReplacedWrite short_write([](int fd, const void* data, std::size_t length) {
    return static_cast<long>(::write(fd, data, length < 3 ? length : 3));
  });
  EXPECT_EQ(nand->Write(kBlock, "0123456789", 10), 10U);
  EXPECT_EQ(ReadText(*nand, kBlock, 10), "0123456789");
}

TEST_F(LinuxNandAccessTest, AbortsWhenAWriteReturnsZero) {
  const auto nand = Open();
  EXPECT_ASSERTION(
      {
        const wrapped_calls::ReplacedWrite nothing([](int, const void*, std::size_t) { return 0L; });
        nand->Write(0, "data", 4);
      },
      "n != 0", "lib/platform/posix_helpers.cpp", ".*write_all_throw\\(.*\\)");
}
