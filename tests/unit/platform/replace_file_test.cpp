#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "lib/platform/posix_helpers.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/throws.h"
#include "tests/unit/support/wrapped_calls.h"

namespace fs = std::filesystem;

using bramble::ReplaceFile;
using test_platform::CountDescriptors;
using test_platform::ExpectErrno;
using test_support::ReadTextFile;
using test_support::TempDir;
using test_support::WriteTextFile;

namespace {

class ReplaceFileTest : public testing::Test {
protected:
  ~ReplaceFileTest() override { EXPECT_EQ(CountDescriptors(), m_descriptors); }

  void ExpectOldFileOnly() const {
    EXPECT_EQ(ReadTextFile(m_path), "old");
    EXPECT_FALSE(fs::exists(fs::symlink_status(m_temporary)));
  }

  const int m_descriptors = CountDescriptors();
  const TempDir m_dir;
  const std::string m_path = m_dir / "file";
  const std::string m_temporary = m_dir / "file~~new";
};

class Umask {
public:
  explicit Umask(mode_t mask) : m_old(::umask(mask)) {}
  ~Umask() { ::umask(m_old); }
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;

private:
  mode_t m_old;
};

/// Lays `path` over itself, read-only, until the object dies.
class ReadOnlyMount {
public:
  explicit ReadOnlyMount(const std::string& path) : m_path(path) {
    // Flags that the outer mount may lock must be repeated.
    constexpr unsigned long kFlags = MS_BIND | MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV;
    if (::mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
        ::mount(nullptr, path.c_str(), nullptr, kFlags, nullptr) != 0) {
      ADD_FAILURE() << "cannot mount " << path;
    }
  }
  ~ReadOnlyMount() { EXPECT_EQ(::umount2(m_path.c_str(), MNT_DETACH), 0); }
  ReadOnlyMount(const ReadOnlyMount&) = delete;
  ReadOnlyMount& operator=(const ReadOnlyMount&) = delete;

private:
  const std::string m_path;
};

unsigned Mode(const std::string& path) { return static_cast<unsigned>(fs::status(path).permissions()); }

}  // namespace

TEST_F(ReplaceFileTest, WritesTextsOfAnySize) {
  constexpr std::size_t kSizes[] = {100000, 16383, 513, 512, 1, 0};
  for (const std::size_t size : kSizes) {
    SCOPED_TRACE(size);
    const std::string text(size, 'x');
    ReplaceFile(m_path, text, 0600);
    EXPECT_EQ(ReadTextFile(m_path), text);
    EXPECT_FALSE(fs::exists(m_temporary));
  }
}

TEST_F(ReplaceFileTest, KeepsEveryByte) {
  std::string text;
  for (int byte = 0; byte < 256; ++byte) {
    text += static_cast<char>(byte);
  }
  ReplaceFile(m_path, text, 0600);
  EXPECT_EQ(ReadTextFile(m_path), text);
}

TEST_F(ReplaceFileTest, ReplacesTheFileInsteadOfRewritingIt) {
  WriteTextFile(m_path, "old");
  fs::create_hard_link(m_path, m_dir / "link");
  ReplaceFile(m_path, "new", 0600);
  EXPECT_EQ(ReadTextFile(m_path), "new");
  EXPECT_EQ(ReadTextFile(m_dir / "link"), "old");
}

TEST_F(ReplaceFileTest, GivesTheModeSubjectToTheUmask) {
  const struct {
    const char* name;
    mode_t mode;
    mode_t mask;
    unsigned result;
  } rows[] = {{"private", 0600, 0022, 0600},
              {"private, open mask", 0600, 0, 0600},
              {"public", 0666, 0022, 0644},
              {"public, open mask", 0666, 0, 0666},
              {"mask takes the owner's right", 0600, 0277, 0400}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    fs::remove(m_path);
    const Umask mask(row.mask);
    ReplaceFile(m_path, "text", row.mode);
    EXPECT_EQ(Mode(m_path), row.result);
  }
}

TEST_F(ReplaceFileTest, DoesNotKeepTheModeOfAnExistingFile) {
  WriteTextFile(m_path, "old");
  fs::permissions(m_path, fs::perms(0644));
  ReplaceFile(m_path, "new", 0600);
  EXPECT_EQ(Mode(m_path), 0600U);
}

TEST_F(ReplaceFileTest, TruncatesATemporaryFileThatACrashLeft) {
  WriteTextFile(m_path, "old");
  WriteTextFile(m_temporary, "a longer text from before");
  ReplaceFile(m_path, "new", 0600);
  EXPECT_EQ(ReadTextFile(m_path), "new");
  EXPECT_FALSE(fs::exists(m_temporary));
}

TEST_F(ReplaceFileTest, KeepsTheOldFileUntilTheNewOneIsComplete) {
  WriteTextFile(m_path, "old");
  bool looked = false;
  {
    const wrapped_calls::ReplacedWrite observed([&](int fd, const void* buffer, std::size_t length) {
      EXPECT_EQ(ReadTextFile(m_path), "old");
      EXPECT_TRUE(fs::exists(m_temporary));
      EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
      looked = true;
      return static_cast<long>(::write(fd, buffer, length));
    });
    ReplaceFile(m_path, "new", 0600);
  }
  EXPECT_TRUE(looked);
  EXPECT_EQ(ReadTextFile(m_path), "new");
}

TEST_F(ReplaceFileTest, KeepsTheOldFileWhenTheDiskIsFull) {
  WriteTextFile(m_path, "old");
  fs::create_symlink("/dev/full", m_temporary);
  ExpectErrno(ENOSPC, "No space left on device (28)", [this] { ReplaceFile(m_path, "new", 0600); });
  ExpectOldFileOnly();
  EXPECT_TRUE(fs::exists("/dev/full"));
}

TEST_F(ReplaceFileTest, LeavesNoFileWhenTheFirstOneCannotBeWritten) {
  fs::create_symlink("/dev/full", m_temporary);
  ExpectErrno(ENOSPC, "No space left on device (28)", [this] { ReplaceFile(m_path, "new", 0600); });
  EXPECT_TRUE(fs::is_empty(m_dir.Path()));
}

TEST_F(ReplaceFileTest, KeepsTheOldFileAfterAShortWrite) {
  WriteTextFile(m_path, "old");
  EXPECT_IN_CHILD({
    test_platform::LimitFileSize(100);
    const int descriptors = CountDescriptors();
    ExpectErrno(EFBIG, "File too large (27)", [this] { ReplaceFile(m_path, std::string(300, 'x'), 0600); });
    EXPECT_EQ(CountDescriptors(), descriptors);
  });
  ExpectOldFileOnly();
}

TEST_F(ReplaceFileTest, KeepsTheOldFileWhenTheTemporaryFileCannotBeOpened) {
  WriteTextFile(m_path, "old");
  fs::create_directory(m_temporary);
  ExpectErrno(EISDIR, m_temporary + ": Is a directory (21)", [this] { ReplaceFile(m_path, "new", 0600); });
  EXPECT_EQ(ReadTextFile(m_path), "old");
  EXPECT_TRUE(fs::is_directory(m_temporary)) << "not ours to remove";
}

TEST_F(ReplaceFileTest, LeavesNoTemporaryFileWhenTheRenameFails) {
  fs::create_directory(m_path);
  ExpectErrno(EISDIR, "Is a directory (21)", [this] { ReplaceFile(m_path, "new", 0600); });
  EXPECT_TRUE(fs::is_directory(m_path));
  EXPECT_FALSE(fs::exists(m_temporary));
}

TEST_F(ReplaceFileTest, ThrowsWithTheTemporaryPathWithoutADirectory) {
  ExpectErrno(ENOENT, m_dir / "missing/file~~new" + ": No such file or directory (2)",
              [this] { ReplaceFile(m_dir / "missing/file", "new", 0600); });
}

TEST_F(ReplaceFileTest, WritesNothingToAReadOnlyFileSystem) {
  WriteTextFile(m_path, "old");
  WriteTextFile(m_temporary, "untouched");
  // The file alone is read-only; its directory would take a temporary file.
  const ReadOnlyMount mount(m_path);
  ExpectErrno(EROFS, "Read-only file system (30)", [this] { ReplaceFile(m_path, "new", 0600); });
  EXPECT_EQ(ReadTextFile(m_path), "old");
  EXPECT_EQ(ReadTextFile(m_temporary), "untouched");
}

TEST_F(ReplaceFileTest, ThrowsWithTheTemporaryPathInAReadOnlyDirectory) {
  const ReadOnlyMount mount(m_dir.Path());
  ExpectErrno(EROFS, m_temporary + ": Read-only file system (30)", [this] { ReplaceFile(m_path, "new", 0600); });
}

TEST_F(ReplaceFileTest, WritesNothingWithoutTheRightToWriteTheFile) {
  WriteTextFile(m_path, "old");
  fs::permissions(m_path, fs::perms(0400));
  WriteTextFile(m_temporary, "untouched");
  EXPECT_IN_CHILD({
    ASSERT_TRUE(test_support::DropCapabilities());
    ExpectErrno(EACCES, "Permission denied (13)", [this] { ReplaceFile(m_path, "new", 0600); });
  });
  EXPECT_EQ(ReadTextFile(m_path), "old");
  EXPECT_EQ(ReadTextFile(m_temporary), "untouched");
}

TEST_F(ReplaceFileTest, ThrowsWithTheTemporaryPathWithoutTheRightToCreateIt) {
  WriteTextFile(m_path, "old");
  fs::permissions(m_dir.Path(), fs::perms(0500));
  EXPECT_IN_CHILD({
    ASSERT_TRUE(test_support::DropCapabilities());
    ExpectErrno(EACCES, m_temporary + ": Permission denied (13)", [this] { ReplaceFile(m_path, "new", 0600); });
  });
  fs::permissions(m_dir.Path(), fs::perms(0700));
  ExpectOldFileOnly();
}
