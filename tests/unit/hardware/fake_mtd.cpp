#include "tests/unit/hardware/fake_mtd.h"

#include <gtest/gtest.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>

namespace test_hardware {
namespace {

FakeMtd* g_fake_mtd = nullptr;

}  // namespace

FakeMtd::FakeMtd(std::uint32_t size, std::uint32_t erase_size, std::uint32_t write_size, std::uint32_t oob_size)
    : spare(oob_size, 0xFF) {
  info.type = MTD_NANDFLASH;
  info.size = size;
  info.erasesize = erase_size;
  info.writesize = write_size;
  info.oobsize = oob_size;
  g_fake_mtd = this;
}

FakeMtd::~FakeMtd() { g_fake_mtd = nullptr; }

int FakeMtd::Answer(int fd, unsigned long request, void* argument) {
  if (on_request) {
    on_request();
  }
  descriptor = fd;
  if (request == failing.first) {
    errno = failing.second;
    return -1;
  }
  const auto record = [this](const std::string& words, auto... numbers) {
    requests += (requests.empty() ? "" : ", ") + words;
    ((requests += " " + std::to_string(numbers)), ...);
  };
  switch (request) {
    case MEMGETINFO:
      record("MEMGETINFO");
      *static_cast<mtd_info_user*>(argument) = info;
      return 0;
    case MEMGETBADBLOCK:
    case MEMSETBADBLOCK: {
      const auto offset = static_cast<std::uint64_t>(*static_cast<const loff_t*>(argument));
      record(request == MEMGETBADBLOCK ? "MEMGETBADBLOCK" : "MEMSETBADBLOCK", offset);
      if (request == MEMGETBADBLOCK) {
        return bad_blocks.count(offset) != 0 ? bad_block_answer : 0;
      }
      bad_blocks.insert(offset);
      return 0;
    }
    case MEMERASE: {
      const auto& block = *static_cast<const erase_info_user*>(argument);
      record("MEMERASE", block.start, block.length);
      return 0;
    }
    case MEMREADOOB: {
      const auto& area = *static_cast<const mtd_oob_buf*>(argument);
      record("MEMREADOOB", area.start, area.length);
      std::copy_n(spare.begin(), std::min<std::size_t>(spare.size(), area.length), area.ptr);
      return 0;
    }
    default:
      ADD_FAILURE() << "unknown request " << request;
      errno = ENOTTY;
      return -1;
  }
}

}  // namespace test_hardware

// The linker replaces calls of F by calls of __wrap_F. __real_F is the original function.
extern "C" {

ssize_t __real_read(int fd, void* buffer, std::size_t length);

ssize_t __wrap_read(int fd, void* buffer, std::size_t length);
ssize_t __wrap_read(int fd, void* buffer, std::size_t length) {
  using test_hardware::g_fake_mtd;
  return __real_read(fd, buffer, g_fake_mtd != nullptr ? std::min(length, g_fake_mtd->longest_read) : length);
}

int __real_ioctl(int fd, unsigned long request, void* argument);

int __wrap_ioctl(int fd, unsigned long request, void* argument);
int __wrap_ioctl(int fd, unsigned long request, void* argument) {
  using test_hardware::g_fake_mtd;
  return g_fake_mtd != nullptr ? g_fake_mtd->Answer(fd, request, argument) : __real_ioctl(fd, request, argument);
}

}  // extern "C"
