// Answers the ioctl requests of a NAND device, so that a test can use an ordinary file as the device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace test_hardware {

/// While this object exists, it answers ioctl on every descriptor. Reads, writes and seeks reach the file, but reads
/// may be short. The linker replaces ioctl and read.
class FakeMtd {
public:
  struct Geometry {
    std::uint32_t size;
    std::uint32_t erase_size;
    std::uint32_t write_size;
    std::uint32_t oob_size;
  };

  explicit FakeMtd(const Geometry& geometry);
  ~FakeMtd();
  FakeMtd(const FakeMtd&) = delete;
  FakeMtd& operator=(const FakeMtd&) = delete;

  /// The offsets of the bad blocks.
  std::set<std::uint64_t> bad_blocks;
  /// The answer to MEMGETBADBLOCK for a bad block.
  int bad_block_answer = 1;
  /// The maximum number of bytes that one read of any file returns.
  std::size_t longest_read = SIZE_MAX;
  /// The contents of the spare area of every page.
  std::vector<unsigned char> spare;
  /// If set, it is called at the start of each request, on the thread that makes the request.
  std::function<void()> on_request;

  /// Makes all further requests of this kind fail with `error_number`.
  void Fail(unsigned long request, int error_number);

  /// Returns the requests since the last call, each with its arguments, such as "MEMERASE 131072 131072".
  std::vector<std::string> TakeRequests();
  /// Returns the descriptor of the last request.
  int Descriptor() const { return m_descriptor; }

  int Answer(int fd, unsigned long request, void* argument);

private:
  const Geometry m_geometry;
  unsigned long m_failing_request = 0;
  int m_error_number = 0;
  std::vector<std::string> m_requests;
  int m_descriptor = -1;
};

}  // namespace test_hardware
