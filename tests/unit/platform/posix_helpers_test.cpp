#include "lib/platform/posix_helpers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "tests/unit/platform/ruler.h"
#include "tests/unit/support/aborts.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/throws.h"
#include "tests/unit/support/wrapped_calls.h"

using bramble::FileDescriptor;
using bramble::Open;
using bramble::read_all_throw;
using bramble::ReadFile;
using bramble::write_all_throw;
using test_platform::CountDescriptors;
using test_platform::ExpectErrno;
using test_platform::Ruler;
using test_support::ReadTextFile;
using test_support::TempDir;
using test_support::WriteTextFile;

static_assert(!std::is_copy_constructible_v<FileDescriptor>);
static_assert(std::is_nothrow_move_constructible_v<FileDescriptor>);

namespace {

bool IsOpenDescriptor(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

struct Pipe {
  Pipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "no pipe";
      return;
    }
    reader = FileDescriptor(ends[0]);
    writer = FileDescriptor(ends[1]);
  }

  FileDescriptor reader;
  FileDescriptor writer;
};

}  // namespace

TEST(FileDescriptor, ClosesWhatItOwns) {
  const FileDescriptor none;
  EXPECT_EQ(none.Get(), -1);
  EXPECT_FALSE(none.IsOpen());

  int fd = -1;
  {
    const FileDescriptor file = Open("/dev/null", O_RDONLY);
    fd = file.Get();
    EXPECT_TRUE(file.IsOpen());
    EXPECT_TRUE(IsOpenDescriptor(fd));
  }
  EXPECT_FALSE(IsOpenDescriptor(fd));
}

TEST(FileDescriptor, OwnsTheLowestDescriptorToo) {
  EXPECT_EQ(test_support::RunInChild([] {
              // Standard input may be closed.
              ::close(STDIN_FILENO);
              FileDescriptor lowest = Open("/dev/null", O_RDONLY);
              std::string seen = FileDescriptor(lowest.Release()).Get() == STDIN_FILENO ? "owned" : "lost";
              return seen + (IsOpenDescriptor(STDIN_FILENO) ? ", left open" : ", closed");
            }),
            "owned, closed");
}

TEST(FileDescriptor, GivesItsDescriptorAwayWhenMoved) {
  FileDescriptor first = Open("/dev/null", O_RDONLY);
  const int fd = first.Get();
  FileDescriptor second(std::move(first));
  EXPECT_EQ(second.Get(), fd);
  EXPECT_EQ(first.Get(), -1);

  FileDescriptor third = Open("/dev/null", O_RDONLY);
  const int replaced = third.Get();
  third = std::move(second);
  EXPECT_EQ(third.Get(), fd);
  EXPECT_EQ(second.Get(), -1);
  EXPECT_TRUE(IsOpenDescriptor(fd));
  EXPECT_FALSE(IsOpenDescriptor(replaced));

  FileDescriptor& same = third;
  third = std::move(same);
  EXPECT_EQ(third.Get(), fd);
  EXPECT_TRUE(IsOpenDescriptor(fd));
}

TEST(FileDescriptor, CloseReportsErrorsAndForgetsTheDescriptor) {
  FileDescriptor file = Open("/dev/null", O_RDONLY);
  const int fd = file.Get();
  file.Close();
  EXPECT_FALSE(file.IsOpen());
  EXPECT_FALSE(IsOpenDescriptor(fd));
  ExpectErrno(EBADF, "Bad file descriptor (9)", [&file] { file.Close(); });

  FileDescriptor stale(fd);
  ExpectErrno(EBADF, "Bad file descriptor (9)", [&stale] { stale.Close(); });
  EXPECT_FALSE(stale.IsOpen());
}

TEST(FileDescriptor, ReleaseKeepsTheDescriptorOpen) {
  FileDescriptor file = Open("/dev/null", O_RDONLY);
  FileDescriptor owner(file.Release());
  EXPECT_FALSE(file.IsOpen());
  EXPECT_TRUE(IsOpenDescriptor(owner.Get()));
}

TEST(Open, ClosesOnExec) {
  const FileDescriptor file = Open("/dev/null", O_RDONLY);
  EXPECT_EQ(::fcntl(file.Get(), F_GETFD), FD_CLOEXEC);
}

TEST(Open, PassesFlagsAndMode) {
  const TempDir dir;
  const mode_t old_mask = ::umask(0);
  const FileDescriptor file = Open(dir / "new", O_WRONLY | O_CREAT | O_EXCL, 0640);
  ::umask(old_mask);
  EXPECT_EQ(std::filesystem::status(dir / "new").permissions(), std::filesystem::perms(0640));
  EXPECT_EQ(::fcntl(file.Get(), F_GETFL) & O_ACCMODE, O_WRONLY);
}

TEST(Open, ThrowsWithThePath) {
  const TempDir dir;
  ExpectErrno(ENOENT, dir / "missing" + ": No such file or directory (2)", [&] { Open(dir / "missing", O_RDONLY); });
  ExpectErrno(EISDIR, dir.Path() + ": Is a directory (21)", [&] { Open(dir.Path(), O_WRONLY); });
}

TEST(ReadAllThrow, ReadsUntilTheLengthOrTheEnd) {
  const struct {
    const char* name;
    std::size_t available;
    std::size_t length;
    std::size_t read;
  } rows[] = {{"all", 10, 10, 10},
              {"more than asked", 10, 4, 4},
              {"ends early", 10, 20, 10},
              {"at the end", 0, 5, 0},
              {"nothing asked", 10, 0, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Pipe pipe;
    const std::string text = Ruler(row.available);
    write_all_throw(pipe.writer.Get(), text.data(), text.size());
    pipe.writer.Close();
    std::string buffer(row.length, '#');
    EXPECT_EQ(read_all_throw(pipe.reader.Get(), buffer.data(), row.length), row.read);
    EXPECT_EQ(buffer, text.substr(0, row.read) + std::string(row.length - row.read, '#'));
  }
}

TEST(ReadAllThrow, GoesOnAfterPartialReads) {
  Pipe pipe;
  const std::string text = Ruler(300000);  // more than a pipe holds
  std::thread writer([&] {
    write_all_throw(pipe.writer.Get(), text.data(), text.size());
    pipe.writer.Close();
  });
  std::string buffer(text.size() + 1, '\0');
  EXPECT_EQ(read_all_throw(pipe.reader.Get(), buffer.data(), buffer.size()), text.size());
  writer.join();
  EXPECT_EQ(buffer.substr(0, text.size()), text);
}

TEST(ReadAllThrow, ThrowsWithTheContext) {
  char byte = 0;
  ExpectErrno(EBADF, "Bad file descriptor (9)", [&] { read_all_throw(-1, &byte, 1); });
  ExpectErrno(EBADF, "Bad file descriptor (9)", [&] { read_all_throw(-1, &byte, 1, nullptr); });
  ExpectErrno(EBADF, "the pipe: Bad file descriptor (9)", [&] { read_all_throw(-1, &byte, 1, "the pipe"); });
}

TEST(WriteAllThrow, GoesOnAfterPartialWrites) {
  const TempDir dir;
  const std::string text = Ruler(1000);
  const FileDescriptor file = Open(dir / "out", O_WRONLY | O_CREAT, 0600);
  int calls = 0;
  {
    const wrapped_calls::ReplacedWrite seven_bytes([&calls](int fd, const void* buffer, std::size_t length) {
      ++calls;
      return static_cast<long>(::write(fd, buffer, std::min(length, std::size_t{7})));
    });
    write_all_throw(file.Get(), text.data(), text.size());
  }
  EXPECT_EQ(ReadTextFile(dir / "out"), text);
  EXPECT_EQ(calls, 143);
}

TEST(WriteAllThrow, WritesNothingOfAnEmptyText) {
  int calls = 0;
  {
    const wrapped_calls::ReplacedWrite counted([&calls](int, const void*, std::size_t) {
      ++calls;
      return 0L;
    });
    write_all_throw(-1, nullptr, 0);
  }
  EXPECT_EQ(calls, 0);
}

TEST(WriteAllThrow, ThrowsWithoutContext) {
  ExpectErrno(EBADF, "Bad file descriptor (9)", [] { write_all_throw(-1, "x", 1); });
  const FileDescriptor full = Open("/dev/full", O_WRONLY);
  ExpectErrno(ENOSPC, "No space left on device (28)", [&full] { write_all_throw(full.Get(), "x", 1); });
}

TEST(WriteAllThrow, LeavesThePartThatFitted) {
  const TempDir dir;
  EXPECT_IN_CHILD({
    test_platform::LimitFileSize(100);
    const FileDescriptor file = Open(dir / "out", O_WRONLY | O_CREAT, 0600);
    const std::string text = Ruler(300);
    ExpectErrno(EFBIG, "File too large (27)", [&] { write_all_throw(file.Get(), text.data(), text.size()); });
  });
  EXPECT_EQ(ReadTextFile(dir / "out"), Ruler(100));
}

TEST(WriteAllThrow, CountsAnInterruptedCallAsFailed) {
  int calls = 0;
  const wrapped_calls::ReplacedWrite interrupted([&calls](int, const void*, std::size_t) {
    ++calls;
    errno = EINTR;
    return -1L;
  });
  ExpectErrno(EINTR, "Interrupted system call (4)", [] { write_all_throw(1, "x", 1); });
  EXPECT_EQ(calls, 1);
}

TEST(WriteAllThrow, AbortsWhenNothingIsTaken) {
  EXPECT_ASSERTION(
      {
        const wrapped_calls::ReplacedWrite nothing([](int, const void*, std::size_t) { return 0L; });
        write_all_throw(1, "x", 1);
      },
      "n != 0", "lib/platform/posix_helpers.cpp",
      "void bramble::write_all_throw\\(int, const void ?\\*, (std::)?size_t\\)");
}

TEST(ReadFile, ReturnsFilesOfAnySize) {
  const TempDir dir;
  const int descriptors = CountDescriptors();
  constexpr std::size_t kSizes[] = {0, 1, 511, 512, 513, 1023, 1024, 1025, 16383, 100000};
  for (const std::size_t size : kSizes) {
    SCOPED_TRACE(size);
    WriteTextFile(dir / "file", Ruler(size));
    EXPECT_EQ(ReadFile(dir / "file"), Ruler(size));
  }
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST(ReadFile, ReturnsStreamsOfAnySize) {
  constexpr std::size_t kSizes[] = {0, 1, 511, 512, 513, 1023, 1024, 1025, 5000, 65536};
  for (const std::size_t size : kSizes) {
    SCOPED_TRACE(size);
    const std::string text = Ruler(size);
    Pipe pipe;
    write_all_throw(pipe.writer.Get(), text.data(), text.size());
    pipe.writer.Close();
    EXPECT_EQ(ReadFile("/proc/self/fd/" + std::to_string(pipe.reader.Get())), text);
  }
}

TEST(ReadFile, ReturnsFilesWhoseSizeIsUnknown) {
  for (const char* const path :
       {"/proc/self/mounts", "/proc/self/environ", "/proc/version", "/proc/filesystems", "/proc/self/limits"}) {
    SCOPED_TRACE(path);
    const std::string text = ReadFile(path);
    EXPECT_FALSE(text.empty());
    EXPECT_EQ(text, ReadTextFile(path));
  }
}

TEST(ReadFile, KeepsEveryByte) {
  const TempDir dir;
  std::string text;
  for (int byte = 0; byte < 256; ++byte) {
    text += static_cast<char>(byte);
  }
  WriteTextFile(dir / "file", text + text);
  EXPECT_EQ(ReadFile(dir / "file"), text + text);
}

TEST(ReadFile, ReturnsWhatIsThereWhenTheSizeIsWrong) {
  const struct {
    const char* name;
    std::int64_t reported;
  } rows[] = {{"none", 0}, {"shrunk", 5000}, {"grown by a byte", 1999}, {"grown", 100}, {"right", 2000}};
  const TempDir dir;
  WriteTextFile(dir / "file", Ruler(2000));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const wrapped_calls::FakeSeek seek(row.reported, 0);
    // The offset is still at the start, as nothing has been sought.
    EXPECT_EQ(ReadFile(dir / "file"), Ruler(2000));
  }
}

TEST(ReadFile, ThrowsWithThePathWhenItCannotOpen) {
  const TempDir dir;
  const int descriptors = CountDescriptors();
  ExpectErrno(ENOENT, dir / "missing" + ": No such file or directory (2)", [&] { ReadFile(dir / "missing"); });
  WriteTextFile(dir / "file", "text");
  ExpectErrno(ENOTDIR, dir / "file/x" + ": Not a directory (20)", [&] { ReadFile(dir / "file/x"); });
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST(ReadFile, ThrowsWithThePathWithoutPermission) {
  const TempDir dir;
  WriteTextFile(dir / "file", "text");
  std::filesystem::permissions(dir / "file", std::filesystem::perms::none);
  EXPECT_IN_CHILD({
    ASSERT_TRUE(test_support::DropCapabilities());
    ExpectErrno(EACCES, dir / "file" + ": Permission denied (13)", [&] { ReadFile(dir / "file"); });
  });
}

TEST(ReadFile, ThrowsWithoutContextForADirectory) {
  const TempDir dir;
  const int descriptors = CountDescriptors();
  ExpectErrno(EISDIR, "Is a directory (21)", [&] { ReadFile(dir.Path()); });
  ExpectErrno(EISDIR, "Is a directory (21)", [] { ReadFile("/proc"); });
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST(ReadFile, ThrowsWithoutContextWhenItCannotSeekBack) {
  const TempDir dir;
  WriteTextFile(dir / "file", "text");
  const wrapped_calls::FakeSeek seek(-1, EIO);
  ExpectErrno(EIO, "Input/output error (5)", [&] { ReadFile(dir / "file"); });
}
