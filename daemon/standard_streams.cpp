#include "daemon/standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

void OpenClosedStandardStreams() noexcept {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (::fcntl(fd, F_GETFD) < 0) {
      // The lowest free descriptor is this one.
      ::open("/dev/null", O_RDWR);
    }
  }
}
