#include "client/files.h"

#include <fcntl.h>
#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cstring>
#include <filesystem>

#include "lib/platform/posix_helpers.h"
#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/temp_dir.h"

namespace ledgerctl {
namespace {

using test_client::Fails;
using test_support::ReadTextFile;
using test_support::WriteTextFile;

class Files : public testing::Test {
protected:
  /// Expects that the directory has this one file, with this text.
  void ExpectOnly(const std::string& name, const std::string& text) const {
    for (const auto& entry : std::filesystem::directory_iterator(directory.Path())) {
      EXPECT_EQ(entry.path().filename(), name);
    }
    EXPECT_EQ(ReadTextFile(directory / name), text);
  }

  static test_client::Outcome Replace(const std::string& name) {
    return test_client::FailureOf([&] { ReplaceDocument(name, "new"); });
  }

  static struct stat StatusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status;
  }

  void WriteOld(mode_t mode) {
    WriteTextFile(file, "old");
    EXPECT_EQ(::chmod(file.c_str(), mode), 0);
  }

  /// Sets the access control list "u::rw,u:root:rw,g::r,m::rw,o::r".
  static void SetAccessList(const std::string& path, const char* name) {
    struct {
      posix_acl_xattr_header header;
      posix_acl_xattr_entry entries[5];
    } list = {{POSIX_ACL_XATTR_VERSION},
              {{ACL_USER_OBJ, 6, 0}, {ACL_USER, 6, 0}, {ACL_GROUP_OBJ, 4, 0}, {ACL_MASK, 6, 0}, {ACL_OTHER, 4, 0}}};
    ASSERT_EQ(::setxattr(path.c_str(), name, &list, sizeof list, 0), 0) << std::strerror(errno);
  }

  test_support::TempDir directory;
  const std::string file = directory / "f";
};

TEST_F(Files, AreReplacedByANewFileOfTheSameMode) {
  for (const mode_t mode : {0600u, 0644u, 0666u, 0400u}) {
    SCOPED_TRACE(mode);
    WriteOld(mode);
    const ino_t before = StatusOf(file).st_ino;
    ReplaceDocument(file, "new");
    EXPECT_NE(before, StatusOf(file).st_ino);
    EXPECT_EQ(StatusOf(file).st_mode & 07777, mode);
    ExpectOnly("f", "new");
    std::filesystem::remove(file);
  }
  ReplaceDocument(file, "new");
  EXPECT_EQ(StatusOf(file).st_mode & 07777, 0600u) << "a new file is private";
}

// With an access control list, more or fewer users can read the file than its mode says.
TEST_F(Files, WithAnAccessControlListBecomePrivate) {
  WriteOld(0644);
  SetAccessList(file, "system.posix_acl_access");
  ASSERT_EQ(StatusOf(file).st_mode & 0777, 0664u);
  ReplaceDocument(file, "new");
  EXPECT_EQ(StatusOf(file).st_mode & 0777, 0600u);
}

TEST_F(Files, GetNoAccessControlListOfTheirDirectory) {
  WriteOld(0640);
  SetAccessList(directory.Path(), "system.posix_acl_default");
  ReplaceDocument(file, "new");
  EXPECT_EQ(StatusOf(file).st_mode & 0777, 0640u);
  EXPECT_LT(::getxattr(file.c_str(), "system.posix_acl_access", nullptr, 0), 0);
}

TEST_F(Files, AreCreatedInTheCurrentDirectory) {
  EXPECT_EQ(test_support::RunInChild([this] {
              std::filesystem::current_path(directory.Path());
              ReplaceDocument("f", "new");
              return ReadTextFile("f");
            }),
            "new");
}

// A process that had the same number was killed.
TEST_F(Files, AreReplacedIfAnOldTemporaryFileHasTheNameOfTheNewOne) {
  WriteTextFile(file + "." + std::to_string(::getpid()) + "~", "left");
  ReplaceDocument(file, "new");
  ExpectOnly("f", "new");
}

TEST_F(Files, AreReplacedThroughALink) {
  WriteOld(0600);
  ASSERT_EQ(::symlink("f", (directory / "link").c_str()), 0);
  ReplaceDocument(directory / "link", "new");
  EXPECT_TRUE(std::filesystem::is_symlink(directory / "link"));
  EXPECT_EQ(ReadTextFile(file), "new");
}

TEST_F(Files, AreNotCreatedThroughALink) {
  ASSERT_EQ(::symlink("none", file.c_str()), 0);
  EXPECT_EQ(Replace(file), Fails(10, file + ": No such file or directory"));
  EXPECT_TRUE(std::filesystem::is_symlink(file));
  EXPECT_FALSE(std::filesystem::exists(directory / "none"));
}

// /dev/stdout is such a link. The path that the kernel prints for it is not the file's, and may be another file's.
TEST_F(Files, WithoutANameAreNotReplaced) {
  WriteOld(0600);
  const bramble::FileDescriptor descriptor = bramble::Open(file, O_RDWR);
  std::filesystem::remove(file);
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor.Get());
  EXPECT_EQ(Replace(link), Fails(10, link + ": No such file or directory"));
  WriteTextFile(file + " (deleted)", "another");
  EXPECT_EQ(Replace(link), Fails(10, link + ": another program has replaced it meanwhile"));
  ExpectOnly("f (deleted)", "another");
}

TEST_F(Files, AreWrittenToIfTheyAreFifos) {
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
  const bramble::FileDescriptor reader = bramble::Open(file, O_RDONLY | O_NONBLOCK);
  ReplaceDocument(file, "new");
  char buffer[8];
  EXPECT_EQ(::read(reader.Get(), buffer, sizeof buffer), 3);
  EXPECT_TRUE(std::filesystem::is_fifo(file));
}

TEST_F(Files, StayUnchangedIfTheNewFileCannotBeWritten) {
  WriteOld(0600);
  const std::string refusal = test_support::RunInChild([this] {
    ::signal(SIGXFSZ, SIG_IGN);
    test_support::LimitResource(RLIMIT_FSIZE, 1);
    return std::get<2>(Replace(file));
  });
  EXPECT_NE(refusal.find(": File too large"), std::string::npos) << refusal;
  ExpectOnly("f", "old");
}

TEST_F(Files, AreReadFromStandardInput) {
  const std::string text = std::string(200000, 'x') + std::string("\0\n", 2);
  const test_client::MemoryFile memory(text);
  const test_client::StandardInput input(memory.Fd());
  EXPECT_EQ(ReadDocument("-"), text);
  EXPECT_EQ(ShownSource("-"), "standard input");
  EXPECT_EQ(ShownSource("a b"), "'a b'");
}

TEST_F(Files, AreNoDirectories) {
  const std::string path = directory.Path();
  EXPECT_EQ(Replace(path), Fails(10, path + ": Is a directory"));
  EXPECT_EQ(test_client::FailureOf([&] { ReadDocument(path); }), Fails(10, path + ": Is a directory"));
}

}  // namespace
}  // namespace ledgerctl
