// Answers the control requests of NAND devices, so that an ordinary file can stand in for one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace test_hardware {

/// While it lives, ioctl on any descriptor goes to it; the linker puts it in front of the C library's. Reading, writing
/// and seeking are the file's own, but reads may be short.
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

  /// Blocks, by their first byte, that are bad.
  std::set<std::uint64_t> bad_blocks;
  /// The answer to the question about one of them.
  int bad_block_answer = 1;
  /// The most bytes that a read of any file delivers at once.
  std::size_t longest_read = SIZE_MAX;
  /// What the spare area of every page holds.
  std::vector<unsigned char> spare;
  /// Called at the beginning of each request, if set, on the thread that makes it.
  std::function<void()> on_request;

  /// From now on `request` fails.
  void Fail(unsigned long request, int error_number);

  /// The requests since the last call, each with its arguments, such as "MEMERASE 131072 131072".
  std::vector<std::string> TakeRequests();
  /// The descriptor of the last request.
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
