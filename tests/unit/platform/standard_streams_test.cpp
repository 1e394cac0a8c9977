#include "lib/platform/standard_streams.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/private_mounts.h"

using test_support::KernelLog;
using test_support::RunInChild;

namespace {

bool IsNullDevice(int fd) {
  struct stat opened;
  struct stat null;
  return ::fstat(fd, &opened) == 0 && ::stat("/dev/null", &null) == 0 && S_ISCHR(opened.st_mode) &&
         opened.st_rdev == null.st_rdev;
}

bool IsKernelLog(int fd) {
  struct stat opened;
  struct stat log;
  return ::fstat(fd, &opened) == 0 && ::stat("/dev/kmsg", &log) == 0 && opened.st_dev == log.st_dev &&
         opened.st_ino == log.st_ino;
}

// Puts the standard descriptors on another device, and closes those whose bit is set in `closed`.
void ReplaceDescriptors(unsigned closed) {
  const int other = ::open("/dev/zero", O_RDWR | O_CLOEXEC);
  for (int fd = 0; fd <= 2; ++fd) {
    ::dup2(other, fd);
    if ((closed >> fd & 1) != 0) {
      ::close(fd);
    }
  }
}

// Where a descriptor is and how it was opened.
std::string Show(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0) {
    return "closed;";
  }
  const int mode = flags & O_ACCMODE;
  return std::string(IsNullDevice(fd)  ? "null"
                     : IsKernelLog(fd) ? "log"
                                       : "other") +
         (mode == O_RDONLY   ? " for reading;"
          : mode == O_WRONLY ? " for writing;"
                             : " for both;");
}

std::string DetachAndShow(unsigned closed) {
  return RunInChild([closed] {
    ReplaceDescriptors(closed);
    bramble::DetachStandardStreams();
    std::string streams = Show(0) + Show(1) + Show(2);
    if (::fileno(stdin) != 0 || ::fileno(stdout) != 1 || ::fileno(stderr) != 2) {
      streams += " on other descriptors";
    }
    return streams;
  });
}

TEST(StandardStreams, EveryClosedOneIsOpenedOnTheNullDevice) {
  for (unsigned closed = 0; closed < 8; ++closed) {
    SCOPED_TRACE(closed);
    std::string expected;
    for (int fd = 0; fd <= 2; ++fd) {
      expected += (closed >> fd & 1) != 0 ? "null for both;" : "other for both;";
    }
    EXPECT_EQ(RunInChild([closed] {
                ReplaceDescriptors(closed);
                bramble::OpenClosedStandardStreams();
                return Show(0) + Show(1) + Show(2);
              }),
              expected);
  }
}

TEST(StandardStreams, AreDetachedWhateverWasClosed) {
  for (unsigned closed = 0; closed < 8; ++closed) {
    SCOPED_TRACE(closed);
    EXPECT_EQ(DetachAndShow(closed), "null for reading;log for writing;log for writing;");
  }
}

TEST(StandardStreams, AreDetachedToTheNullDeviceWithoutAKernelLog) {
  const test_support::UnopenableKernelLog unopenable;
  for (unsigned closed = 0; closed < 8; ++closed) {
    SCOPED_TRACE(closed);
    EXPECT_EQ(DetachAndShow(closed), "null for reading;null for writing;null for writing;");
  }
}

TEST(StandardStreams, TakePrintsWithoutAKernelLog) {
  const test_support::UnopenableKernelLog unopenable;
  EXPECT_EQ(RunInChild([]() -> std::string {
              bramble::DetachStandardStreams();
              const bool printed = std::printf("out\n") == 4 && std::fprintf(stderr, "err\n") == 4;
              return printed && std::fflush(nullptr) == 0 ? "printed" : "failed";
            }),
            "printed");
}

TEST(StandardStreams, AreAtTheirEndWhenTheyAreReadDetached) {
  EXPECT_EQ(RunInChild([] {
              bramble::DetachStandardStreams();
              return std::string(std::getchar() == EOF && std::feof(stdin) != 0 ? "end" : "no end");
            }),
            "end");
}

TEST(StandardStreams, GoToTheKernelLogLineByLine) {
  for (std::FILE* const stream : {stdout, stderr}) {
    SCOPED_TRACE(::fileno(stream));
    test_support::ClearKernelLog();
    EXPECT_EQ(RunInChild([stream] {
                bramble::DetachStandardStreams();
                std::string seen;
                for (const char* text : {"first", " line\n", "second\nthird", "\n"}) {
                  std::fputs(text, stream);
                  seen += KernelLog() + "|";
                }
                return seen;
              }),
              "|first line\n|first line\nsecond\n|first line\nsecond\nthird\n|");
  }
}

}  // namespace
