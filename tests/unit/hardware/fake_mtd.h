// Answers the ioctl requests of a NAND device, so that a test can use an ordinary file as the device.
#pragma once

#include <mtd/mtd-user.h>

#include <boost/core/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace test_hardware {

/// While this object exists, it answers ioctl on every descriptor. Reads, writes and seeks reach the file, but reads
/// may be short. The linker replaces ioctl and read.
struct FakeMtd : boost::noncopyable {
  FakeMtd(std::uint32_t size, std::uint32_t erase_size, std::uint32_t write_size, std::uint32_t oob_size);
  ~FakeMtd();

  /// Makes all further requests of this kind fail with `error`.
  void Fail(unsigned long request, int error) { failing = {request, error}; }

  /// Returns the requests since the last call with their arguments, such as "MEMGETINFO, MEMERASE 131072 131072".
  std::string TakeRequests() { return std::exchange(requests, ""); }

  int Answer(int fd, unsigned long request, void* argument);

  mtd_info_user info{};  // the geometry
  /// The contents of the spare area of every page.
  std::vector<unsigned char> spare;
  /// The offsets of the bad blocks.
  std::set<std::uint64_t> bad_blocks;
  /// The answer to MEMGETBADBLOCK for a bad block.
  int bad_block_answer = 1;
  /// The maximum number of bytes that one read of any file returns.
  std::size_t longest_read = SIZE_MAX;
  /// If set, it is called at the start of each request, on the thread that makes the request.
  std::function<void()> on_request;
  std::pair<unsigned long, int> failing;  // the request and its error
  std::string requests;
  /// The descriptor of the last request.
  int descriptor = -1;
};

}  // namespace test_hardware
