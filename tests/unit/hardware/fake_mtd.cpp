#include "tests/unit/hardware/fake_mtd.h"

#include <gtest/gtest.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <utility>

namespace test_hardware {
namespace {

FakeMtd* g_fake_mtd = nullptr;

std::string Describe(const char* request, std::initializer_list<std::uint64_t> arguments) {
  std::string text = request;
  for (const std::uint64_t argument : arguments) {
    text += " " + std::to_string(argument);
  }
  return text;
}

std::uint64_t Offset(const void* argument) { return static_cast<std::uint64_t>(*static_cast<const loff_t*>(argument)); }

}  // namespace

FakeMtd::FakeMtd(const Geometry& geometry) : spare(geometry.oob_size, 0xFF), m_geometry(geometry) { g_fake_mtd = this; }

FakeMtd::~FakeMtd() { g_fake_mtd = nullptr; }

void FakeMtd::Fail(unsigned long request, int error_number) {
  m_failing_request = request;
  m_error_number = error_number;
}

std::vector<std::string> FakeMtd::TakeRequests() { return std::exchange(m_requests, {}); }

int FakeMtd::Answer(int fd, unsigned long request, void* argument) {
  if (on_request) {
    on_request();
  }
  m_descriptor = fd;
  if (request == m_failing_request) {
    errno = m_error_number;
    return -1;
  }
  switch (request) {
    case MEMGETINFO: {
      m_requests.push_back(Describe("MEMGETINFO", {}));
      auto& info = *static_cast<mtd_info_user*>(argument);
      info = mtd_info_user{};
      info.type = MTD_NANDFLASH;
      info.size = m_geometry.size;
      info.erasesize = m_geometry.erase_size;
      info.writesize = m_geometry.write_size;
      info.oobsize = m_geometry.oob_size;
      return 0;
    }
    case MEMGETBADBLOCK:
      m_requests.push_back(Describe("MEMGETBADBLOCK", {Offset(argument)}));
      return bad_blocks.count(Offset(argument)) != 0 ? bad_block_answer : 0;
    case MEMSETBADBLOCK:
      m_requests.push_back(Describe("MEMSETBADBLOCK", {Offset(argument)}));
      bad_blocks.insert(Offset(argument));
      return 0;
    case MEMERASE: {
      const auto& block = *static_cast<const erase_info_user*>(argument);
      m_requests.push_back(Describe("MEMERASE", {block.start, block.length}));
      return 0;
    }
    case MEMREADOOB: {
      const auto& area = *static_cast<const mtd_oob_buf*>(argument);
      m_requests.push_back(Describe("MEMREADOOB", {area.start, area.length}));
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
