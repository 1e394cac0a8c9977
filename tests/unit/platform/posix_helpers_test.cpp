#include "lib/platform/posix_helpers.h"

#include "tests/unit/platform/platform_test.h"

using namespace test_platform;

static_assert(!std::is_copy_constructible_v<FileDescriptor>);
static_assert(std::is_nothrow_move_constructible_v<FileDescriptor>);

namespace {

bool IsOpenDescriptor(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

struct Pipe {
  Pipe() {
    int ends[2]{-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    reader = FileDescriptor(ends[0]);
    writer = FileDescriptor(ends[1]);
  }

  void Fill(const std::string& text) {
    write_all_throw(writer.Get(), text.data(), text.size());
    writer.Close();
  }

  FileDescriptor reader;
  FileDescriptor writer;
};

}  // namespace

TEST(FileDescriptor, ClosesAndMovesItsDescriptor) {
  EXPECT_EQ(FileDescriptor().Get(), -1);
  EXPECT_FALSE(FileDescriptor().IsOpen());
  int fd = -1;
  {
    FileDescriptor first = Open("/dev/null", O_RDONLY);
    fd = first.Get();
    EXPECT_TRUE(first.IsOpen());
    FileDescriptor second(std::move(first));
    EXPECT_EQ(second.Get(), fd);
    EXPECT_EQ(first.Get(), -1);

    FileDescriptor third = Open("/dev/null", O_RDONLY);
    const int replaced = third.Get();
    third = std::move(second);
    EXPECT_EQ(third.Get(), fd);
    EXPECT_EQ(second.Get(), -1);
    EXPECT_FALSE(IsOpenDescriptor(replaced));

    FileDescriptor& same = third;
    third = std::move(same);
    EXPECT_EQ(third.Get(), fd);
    EXPECT_TRUE(IsOpenDescriptor(fd));
  }
  EXPECT_FALSE(IsOpenDescriptor(fd));
}

TEST(FileDescriptor, OwnsAndReleasesEvenTheLowestDescriptor) {
  EXPECT_EQ(RunInChild([] {
              // Standard input may be closed.
              ::close(STDIN_FILENO);
              FileDescriptor lowest = Open("/dev/null", O_RDONLY);
              FileDescriptor owner(lowest.Release());
              std::string seen = lowest.IsOpen() || owner.Get() != STDIN_FILENO ? "lost" : "owned";
              seen += IsOpenDescriptor(STDIN_FILENO) ? ", open" : ", closed";
              owner = FileDescriptor();
              return seen + (IsOpenDescriptor(STDIN_FILENO) ? ", left open" : ", closed");
            }),
            "owned, open, closed");
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

TEST(Open, PassesFlagsAndModeAndClosesOnExec) {
  const TempDir dir;
  const mode_t old_mask = ::umask(0);
  const FileDescriptor file = Open(dir / "new", O_WRONLY | O_CREAT | O_EXCL, 0640);
  ::umask(old_mask);
  EXPECT_EQ(std::filesystem::status(dir / "new").permissions(), std::filesystem::perms(0640));
  EXPECT_EQ(::fcntl(file.Get(), F_GETFL) & O_ACCMODE, O_WRONLY);
  EXPECT_EQ(::fcntl(file.Get(), F_GETFD), FD_CLOEXEC);
}

TEST(ReadAllThrow, ReadsUntilTheLengthOrTheEnd) {
  const std::tuple<const char*, std::size_t, std::size_t, std::size_t> rows[] = {
      {"all", 10, 10, 10},
      {"less than there is", 10, 4, 4},
      {"more than there is", 10, 20, 10},
      {"at the end", 0, 5, 0},
      {"nothing", 10, 0, 0},
  };
  for (const auto& [name, available, length, read] : rows) {
    SCOPED_TRACE(name);
    const std::string text = Ruler(available);
    Pipe pipe;
    pipe.Fill(text);
    std::string buffer(length, '#');
    EXPECT_EQ(read_all_throw(pipe.reader.Get(), buffer.data(), length), read);
    EXPECT_EQ(buffer, text.substr(0, read) + std::string(length - read, '#'));
  }
}

TEST(ReadAllThrow, ContinuesAfterPartialReads) {
  Pipe pipe;
  const std::string text = Ruler(300000);  // more than a pipe holds
  std::thread writer([&] { pipe.Fill(text); });
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

TEST(WriteAllThrow, ContinuesAfterPartialWrites) {
  const TempDir dir;
  const FileDescriptor file = Open(dir / "out", O_WRONLY | O_CREAT, 0600);
  const std::string text = Ruler(1000);
  int calls = 0;
  {
    const ReplacedWrite seven_bytes([&calls](int fd, const void* buffer, std::size_t length) {
      ++calls;
      return static_cast<long>(::write(fd, buffer, std::min(length, std::size_t{7})));
    });
    write_all_throw(file.Get(), text.data(), text.size());
    EXPECT_EQ(calls, 143);
    write_all_throw(file.Get(), nullptr, 0);
    EXPECT_EQ(calls, 143) << "an empty text is written";
  }
  EXPECT_EQ(ReadTextFile(dir / "out"), text);
}

TEST(WriteAllThrow, ThrowsWithoutContextOnAnyErrorEvenAnInterruption) {
  ExpectErrno(EBADF, "Bad file descriptor (9)", [] { write_all_throw(-1, "x", 1); });
  int calls = 0;
  const ReplacedWrite interrupted([&calls](int, const void*, std::size_t) {
    ++calls;
    errno = EINTR;
    return -1L;
  });
  ExpectErrno(EINTR, "Interrupted system call (4)", [] { write_all_throw(1, "x", 1); });
  EXPECT_EQ(calls, 1);
}

TEST(WriteAllThrow, AbortsIfNoByteIsWritten) {
  EXPECT_ASSERTION(
      {
        const ReplacedWrite nothing([](int, const void*, std::size_t) { return 0L; });
        write_all_throw(1, "x", 1);
      },
      "n != 0", "lib/platform/posix_helpers.cpp",
      "void bramble::write_all_throw\\(int, const void ?\\*, (std::)?size_t\\)");
}

TEST(ReadFile, ReturnsFilesAndStreamsOfAnySize) {
  const TempDir dir;
  const int descriptors = CountDescriptors();
  for (const std::size_t size : {0U, 1U, 511U, 512U, 513U, 1023U, 1024U, 1025U, 16383U, 65536U}) {
    SCOPED_TRACE(size);
    const std::string text = Ruler(size);
    WriteTextFile(dir / "file", text);
    EXPECT_EQ(ReadFile(dir / "file"), text);
    Pipe pipe;
    pipe.Fill(text);
    EXPECT_EQ(ReadFile("/proc/self/fd/" + std::to_string(pipe.reader.Get())), text);
  }
  WriteTextFile(dir / "file", AllBytes());
  EXPECT_EQ(ReadFile(dir / "file"), AllBytes());
  // The size of these is unknown.
  for (const char* const path :
       {"/proc/self/mounts", "/proc/self/environ", "/proc/version", "/proc/filesystems", "/proc/self/limits"}) {
    EXPECT_THAT(ReadFile(path), testing::AllOf(testing::Ne(""), testing::Eq(ReadTextFile(path)))) << path;
  }
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST(ReadFile, ReturnsTheWholeFileIfItsSizeIsWrong) {
  const TempDir dir;
  WriteTextFile(dir / "file", Ruler(2000));
  for (const int reported : {0, 100, 1999, 2000, 5000}) {
    SCOPED_TRACE(reported);
    const FakeSeek seek(reported, 0);  // leaves the offset at the start
    EXPECT_EQ(ReadFile(dir / "file"), Ruler(2000));
  }
}

TEST(ReadFile, ThrowsWithThePathOnlyIfItCannotOpen) {
  const TempDir dir;
  const int descriptors = CountDescriptors();
  WriteTextFile(dir / "file", "text");
  const std::tuple<std::string, int, std::string> rows[] = {
      {dir / "missing", ENOENT, dir / "missing" + ": No such file or directory (2)"},
      {dir / "file/x", ENOTDIR, dir / "file/x" + ": Not a directory (20)"},
      {dir.Path(), EISDIR, "Is a directory (21)"},
      {"/proc", EISDIR, "Is a directory (21)"},
  };
  for (const auto& [path, error_number, text] : rows) {
    ExpectErrno(error_number, text, [&path = path] { ReadFile(path); });
  }
  {
    const FakeSeek seek(-1, EIO);
    ExpectErrno(EIO, "Input/output error (5)", [&] { ReadFile(dir / "file"); });
  }
  EXPECT_EQ(CountDescriptors(), descriptors);
  std::filesystem::permissions(dir / "file", std::filesystem::perms::none);
  EXPECT_IN_CHILD({
    ASSERT_TRUE(DropCapabilities());
    ExpectErrno(EACCES, dir / "file" + ": Permission denied (13)", [&] { ReadFile(dir / "file"); });
  });
}
