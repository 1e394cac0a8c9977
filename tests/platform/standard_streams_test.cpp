#include "lib/platform/standard_streams.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool IsNullDevice(int fd) {
  struct stat opened;
  struct stat null;
  return ::fstat(fd, &opened) == 0 && ::stat("/dev/null", &null) == 0 && S_ISCHR(opened.st_mode) &&
         opened.st_rdev == null.st_rdev;
}

// Exits with 0 if each stream whose bit is set in `closed` was opened on /dev/null and the others were left alone.
[[noreturn]] void CheckWithClosed(unsigned closed) {
  const int other = ::open("/dev/zero", O_RDWR);
  for (int fd = 0; fd <= 2; ++fd) {
    ::dup2(other, fd);
    if ((closed >> fd & 1) != 0) {
      ::close(fd);
    }
  }
  bramble::OpenClosedStandardStreams();
  for (int fd = 0; fd <= 2; ++fd) {
    const bool was_closed = (closed >> fd & 1) != 0;
    if (IsNullDevice(fd) != was_closed || ::fcntl(fd, F_GETFD) == -1) {
      ::_exit(1);
    }
  }
  ::_exit(0);
}

TEST(StandardStreams, EveryClosedOneIsOpenedOnTheNullDevice) {
  for (unsigned closed = 0; closed < 8; ++closed) {
    SCOPED_TRACE(closed);
    EXPECT_EXIT(CheckWithClosed(closed), testing::ExitedWithCode(0), "");
  }
}

}  // namespace
