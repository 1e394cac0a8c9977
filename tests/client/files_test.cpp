#include "client/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "client/failure.h"
#include "lib/platform/posix_helpers.h"
#include "tests/client/client_fixture.h"
#include "tests/support/forked_child.h"
#include "tests/support/temp_dir.h"

namespace ledgerctl {
namespace {

using test_support::ReadTextFile;
using test_support::WriteTextFile;

class Files : public testing::Test {
protected:
  /// What is in the folder besides `name`.
  std::vector<std::string> Others(const std::string& name) const {
    std::vector<std::string> others;
    for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
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

  test_support::TempDir folder;
};

TEST_F(Files, AreReplacedByANewFileOfTheUsualMode) {
  const std::string path = folder / "f";
  const mode_t umask = ::umask(027);
  WriteTextFile(path, "old");
  ::chmod(path.c_str(), 0600);
  struct stat before {};
  ::stat(path.c_str(), &before);
  ReplaceDocument(path, "new");
  ::umask(umask);
  struct stat after {};
  ::stat(path.c_str(), &after);
  EXPECT_EQ(ReadTextFile(path), "new");
  EXPECT_NE(before.st_ino, after.st_ino);
  EXPECT_EQ(after.st_mode & 0777, 0640u);
  EXPECT_EQ(Others("f"), std::vector<std::string>());
}

TEST_F(Files, AreMadeWhereThereAreNone) {
  EXPECT_EQ(test_support::RunInChild([this] {
              std::filesystem::current_path(folder.Path());
              ReplaceDocument("f", "new");
              return ReadTextFile("f");
            }),
            "new");
}

// A process that had the same number was killed.
TEST_F(Files, AreReplacedWhereAnOldTemporaryFileIsInTheWay) {
  WriteTextFile(folder / ("f." + std::to_string(::getpid()) + "~"), "left");
  ReplaceDocument(folder / "f", "new");
  EXPECT_EQ(ReadTextFile(folder / "f"), "new");
  EXPECT_EQ(Others("f"), std::vector<std::string>());
}

TEST_F(Files, AreReplacedBehindALink) {
  WriteTextFile(folder / "f", "old");
  ASSERT_EQ(::symlink("f", (folder / "link").c_str()), 0);
  ReplaceDocument(folder / "link", "new");
  EXPECT_TRUE(std::filesystem::is_symlink(folder / "link"));
  EXPECT_EQ(ReadTextFile(folder / "f"), "new");
}

TEST_F(Files, ThatAreNoneAreWrittenTo) {
  const std::string fifo = folder / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const bramble::FileDescriptor reader = bramble::Open(fifo, O_RDONLY | O_NONBLOCK);
  ReplaceDocument(fifo, "new");
  char buffer[8];
  EXPECT_EQ(::read(reader.Get(), buffer, sizeof buffer), 3);
  EXPECT_TRUE(std::filesystem::is_fifo(fifo));
  EXPECT_EQ(RefusalOf(folder.Path()), folder.Path() + ": Is a directory");
}

TEST_F(Files, StayAsTheyAreWhenTheNewOneCannotBeWritten) {
  WriteTextFile(folder / "f", "old");
  const std::string refusal = test_support::RunInChild([this] {
    ::signal(SIGXFSZ, SIG_IGN);
    test_support::LimitResource(RLIMIT_FSIZE, 1);
    return RefusalOf(folder / "f");
  });
  EXPECT_NE(refusal.find(": File too large"), std::string::npos) << refusal;
  EXPECT_EQ(ReadTextFile(folder / "f"), "old");
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
    ReadDocument(folder.Path());
    ADD_FAILURE() << "nothing thrown";
  } catch (const Failure& e) {
    EXPECT_EQ(e.Status(), ExitStatus::Local);
    EXPECT_EQ(e.what(), folder.Path() + ": Is a directory");
  }
}

}  // namespace
}  // namespace ledgerctl
