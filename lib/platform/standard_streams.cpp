#include "lib/platform/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace bramble {
namespace {

constexpr char kNullDevice[] = "/dev/null";
constexpr char kKernelLog[] = "/dev/kmsg";

// The second attempt keeps the descriptor of the stream occupied.
void Reopen(const char* path, const char* mode, std::FILE* stream) {
  if (std::freopen(path, mode, stream) == nullptr) {
    [[maybe_unused]] const std::FILE* const ignored = std::freopen(kNullDevice, mode, stream);
  }
}

void ReopenOnKernelLog(std::FILE* stream) {
  Reopen(kKernelLog, "w", stream);
  std::setvbuf(stream, nullptr, _IOLBF, BUFSIZ);
}

}  // namespace

void OpenClosedStandardStreams() noexcept {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) < 0) {
      // This is the lowest free descriptor.
      ::open(kNullDevice, O_RDWR);
    }
  }
}

void DetachStandardStreams() noexcept {
  Reopen(kNullDevice, "r", stdin);
  ReopenOnKernelLog(stdout);
  ReopenOnKernelLog(stderr);
}

}  // namespace bramble
