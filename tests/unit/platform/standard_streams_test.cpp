#include "lib/platform/standard_streams.h"

#include "tests/unit/platform/platform_test.h"

using namespace test_platform;

namespace {

// Runs `change` in a child whose standard streams are on another device, except those whose bit is set in `closed`,
// which are closed. Returns the file and the access mode of each stream after that.
std::string StreamsAfter(void (*change)(), unsigned closed) {
  return RunInChild([&] {
    const int other = ::open("/dev/zero", O_RDWR | O_CLOEXEC);
    for (int fd = 0; fd <= 2; ++fd) {
      ::dup2(other, fd);
      if ((closed >> fd & 1) != 0) {
        ::close(fd);
      }
    }
    change();
    std::string streams;
    for (std::FILE* const stream : {stdin, stdout, stderr}) {
      struct stat opened {};
      ::fstat(::fileno(stream), &opened);
      const auto is = [&opened](const char* path) {
        struct stat named {};
        return ::stat(path, &named) == 0 && opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
      };
      const int mode = ::fcntl(::fileno(stream), F_GETFL) & O_ACCMODE;
      streams += std::to_string(::fileno(stream)) + (is("/dev/null")   ? " null"
                                                     : is("/dev/kmsg") ? " log"
                                                     : is("/dev/zero") ? " zero"
                                                                       : " ?");
      streams += mode == O_RDONLY ? " r;" : mode == O_WRONLY ? " w;" : " rw;";
    }
    return streams;
  });
}

}  // namespace

TEST(StandardStreams, AreOpenedOnTheNullDeviceIfTheyAreClosed) {
  for (unsigned closed = 0; closed < 8; ++closed) {
    SCOPED_TRACE(closed);
    std::string expected;
    for (int fd = 0; fd <= 2; ++fd) {
      expected += std::to_string(fd) + ((closed >> fd & 1) != 0 ? " null rw;" : " zero rw;");
    }
    EXPECT_EQ(StreamsAfter(OpenClosedStandardStreams, closed), expected);
  }
}

TEST(StandardStreams, AreDetachedFromAnyStateWithAndWithoutAKernelLog) {
  for (unsigned closed = 0; closed < 8; ++closed) {
    SCOPED_TRACE(closed);
    EXPECT_EQ(StreamsAfter(DetachStandardStreams, closed), "0 null r;1 log w;2 log w;");
    const UnopenableKernelLog unopenable;
    EXPECT_EQ(StreamsAfter(DetachStandardStreams, closed), "0 null r;1 null w;2 null w;");
  }
}

TEST(StandardStreams, CanBeReadAndWrittenWithoutAKernelLog) {
  const UnopenableKernelLog unopenable;
  EXPECT_EQ(RunInChild([]() -> std::string {
              DetachStandardStreams();
              const bool at_end = std::getchar() == EOF && std::feof(stdin) != 0;
              const bool printed = std::printf("out\n") == 4 && std::fprintf(stderr, "err\n") == 4;
              return at_end && printed && std::fflush(nullptr) == 0 ? "read and printed" : "failed";
            }),
            "read and printed");
}

TEST(StandardStreams, AreWrittenToTheKernelLogLineByLine) {
  for (std::FILE* const stream : {stdout, stderr}) {
    SCOPED_TRACE(::fileno(stream));
    ClearKernelLog();
    EXPECT_EQ(RunInChild([stream] {
                DetachStandardStreams();
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
