#include "client/files.h"

#include <fcntl.h>
#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "client/failure.h"
#include "lib/platform/posix_helpers.h"
#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/temp_dir.h"

namespace ledgerctl {
namespace {

using test_support::ReadTextFile;
using test_support::WriteTextFile;

class Files : public testing::Test {
protected:
  /// What is in the directory besides `name`.
  std::vector<std::string> Others(const std::string& name) const {
    std::vector<std::string> others;
    for (const auto& entry : std::filesystem::directory_iterator(directory.Path())) {
      if (entry.path().filename() != name) {
        others.push_back(entry.path().filename());
      }
    }
    return others;
  }

  std::string RefusalOf(const std::string& path) {
    try {
      ReplaceDocument(path, "new");
    } catch (const Failure& e) {
      EXPECT_EQ(e.Status(), ExitStatus::Local);
      return e.what();
    }
    return "accepted";
  }

  static struct stat StatusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status;
  }

  /// The list of "u::rw,u:root:rw,g::r,m::rw,o::r".
  static void SetAccessList(const std::string& path, const char* name) {
    struct {
      posix_acl_xattr_header header;
      posix_acl_xattr_entry entries[5];
    } list = {{POSIX_ACL_XATTR_VERSION},
              {{ACL_USER_OBJ, 6, 0}, {ACL_USER, 6, 0}, {ACL_GROUP_OBJ, 4, 0}, {ACL_MASK, 6, 0}, {ACL_OTHER, 4, 0}}};
    ASSERT_EQ(::setxattr(path.c_str(), name, &list, sizeof list, 0), 0) << std::strerror(errno);
  }

  test_support::TempDir directory;
};

TEST_F(Files, AreReplacedByANewFileOfTheSameMode) {
  const std::string path = directory / "f";
  for (const mode_t mode : {0600u, 0644u, 0666u, 0400u}) {
    SCOPED_TRACE(mode);
    WriteTextFile(path, "old");
    ::chmod(path.c_str(), mode);
    const ino_t before = StatusOf(path).st_ino;
    ReplaceDocument(path, "new");
    EXPECT_EQ(ReadTextFile(path), "new");
    EXPECT_NE(before, StatusOf(path).st_ino);
    EXPECT_EQ(StatusOf(path).st_mode & 07777, mode);
    EXPECT_EQ(Others("f"), std::vector<std::string>());
    std::filesystem::remove(path);
  }
}

// As an access control list lets more users, or fewer, read the file than its mode says.
TEST_F(Files, WithAnAccessControlListBecomePrivate) {
  WriteTextFile(directory / "f", "old");
  SetAccessList(directory / "f", "system.posix_acl_access");
  ASSERT_EQ(StatusOf(directory / "f").st_mode & 0777, 0664u);
  ReplaceDocument(directory / "f", "new");
  EXPECT_EQ(StatusOf(directory / "f").st_mode & 0777, 0600u);
}

TEST_F(Files, GetNoAccessControlListOfTheirDirectory) {
  WriteTextFile(directory / "f", "old");
  ::chmod((directory / "f").c_str(), 0640);
  SetAccessList(directory.Path(), "system.posix_acl_default");
  ReplaceDocument(directory / "f", "new");
  EXPECT_EQ(StatusOf(directory / "f").st_mode & 0777, 0640u);
  EXPECT_LT(::getxattr((directory / "f").c_str(), "system.posix_acl_access", nullptr, 0), 0);
}

TEST_F(Files, ThatAreNewArePrivate) {
  ReplaceDocument(directory / "f", "new");
  EXPECT_EQ(StatusOf(directory / "f").st_mode & 07777, 0600u);
}

TEST_F(Files, AreMadeWhereThereAreNone) {
  EXPECT_EQ(test_support::RunInChild([this] {
              std::filesystem::current_path(directory.Path());
              ReplaceDocument("f", "new");
              return ReadTextFile("f");
            }),
            "new");
}

// A process that had the same number was killed.
TEST_F(Files, AreReplacedWhereAnOldTemporaryFileIsInTheWay) {
  WriteTextFile(directory / ("f." + std::to_string(::getpid()) + "~"), "left");
  ReplaceDocument(directory / "f", "new");
  EXPECT_EQ(ReadTextFile(directory / "f"), "new");
  EXPECT_EQ(Others("f"), std::vector<std::string>());
}

TEST_F(Files, AreReplacedWhereALinkLeads) {
  WriteTextFile(directory / "f", "old");
  ASSERT_EQ(::symlink("f", (directory / "link").c_str()), 0);
  ReplaceDocument(directory / "link", "new");
  EXPECT_TRUE(std::filesystem::is_symlink(directory / "link"));
  EXPECT_EQ(ReadTextFile(directory / "f"), "new");
}

TEST_F(Files, AreNotMadeWhereALinkLeadsNowhere) {
  ASSERT_EQ(::symlink("none", (directory / "link").c_str()), 0);
  EXPECT_EQ(RefusalOf(directory / "link"), directory / "link" + ": No such file or directory");
  EXPECT_EQ(Others("link"), std::vector<std::string>());
}

// /dev/stdout is such a link. The path that the kernel prints for it is not the file's, and may be another file's.
TEST_F(Files, WithoutANameAreNotReplaced) {
  WriteTextFile(directory / "f", "old");
  const bramble::FileDescriptor file = bramble::Open(directory / "f", O_RDWR);
  std::filesystem::remove(directory / "f");
  const std::string link = "/proc/self/fd/" + std::to_string(file.Get());
  EXPECT_EQ(RefusalOf(link), link + ": No such file or directory");
  WriteTextFile(directory / "f (deleted)", "another");
  EXPECT_EQ(RefusalOf(link), link + ": another program has replaced it meanwhile");
  EXPECT_EQ(ReadTextFile(directory / "f (deleted)"), "another");
  EXPECT_EQ(Others("f (deleted)"), std::vector<std::string>());
}

TEST_F(Files, ThatAreNoneAreWrittenTo) {
  const std::string fifo = directory / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const bramble::FileDescriptor reader = bramble::Open(fifo, O_RDONLY | O_NONBLOCK);
  ReplaceDocument(fifo, "new");
  char buffer[8];
  EXPECT_EQ(::read(reader.Get(), buffer, sizeof buffer), 3);
  EXPECT_TRUE(std::filesystem::is_fifo(fifo));
  EXPECT_EQ(RefusalOf(directory.Path()), directory.Path() + ": Is a directory");
}

TEST_F(Files, StayAsTheyAreWhenTheNewOneCannotBeWritten) {
  WriteTextFile(directory / "f", "old");
  const std::string refusal = test_support::RunInChild([this] {
    ::signal(SIGXFSZ, SIG_IGN);
    test_support::LimitResource(RLIMIT_FSIZE, 1);
    return RefusalOf(directory / "f");
  });
  EXPECT_NE(refusal.find(": File too large"), std::string::npos) << refusal;
  EXPECT_EQ(ReadTextFile(directory / "f"), "old");
  EXPECT_EQ(Others("f"), std::vector<std::string>());
}

TEST_F(Files, AreReadFromStandardInput) {
  const std::string text = std::string(200000, 'x') + std::string("\0\n", 2);
  const test_client::StandardInput input(text);
  EXPECT_EQ(ReadDocument("-"), text);
  EXPECT_EQ(ShownSource("-"), "standard input");
  EXPECT_EQ(ShownSource("a b"), "'a b'");
}

TEST_F(Files, ThatCannotBeReadAreNamed) {
  try {
    ReadDocument(directory.Path());
    ADD_FAILURE() << "nothing thrown";
  } catch (const Failure& e) {
    EXPECT_EQ(e.Status(), ExitStatus::Local);
    EXPECT_EQ(e.what(), directory.Path() + ": Is a directory");
  }
}

}  // namespace
}  // namespace ledgerctl
