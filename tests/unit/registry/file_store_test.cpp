#include "registry/file_store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <new>
#include <string>

#include "lib/platform/errno_exception.h"
#include "tests/unit/registry/back_end_fixture.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/emulation.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/memory_use.h"
#include "tests/unit/support/temp_dir.h"

namespace {

using namespace std::string_literals;
using test_support::CapturedStderr;
using test_support::ReadTextFile;
using test_support::RunInChild;
using test_support::TempDir;
using test_support::WriteTextFile;

constexpr std::uint32_t kCapacity = 16383;

class Umask {
public:
  explicit Umask(mode_t mask) : m_old(::umask(mask)) {}
  ~Umask() { ::umask(m_old); }
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;

private:
  mode_t m_old;
};

std::shared_ptr<FileStore> StoreAt(const std::string& path) { return FileStore::Create(path, kCapacity, 0600); }

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

std::string WriteFailure(FileStore& store, const std::string& text) {
  try {
    store.Write(text);
  } catch (const bramble::ErrnoException& e) {
    return e.what();
  }
  return "no exception";
}

bool Exists(const std::string& path) {
  return std::filesystem::symlink_status(path).type() != std::filesystem::file_type::not_found;
}

class FileStoreTest : public testing::Test {
protected:
  const TempDir m_dir;
  const std::string m_path = m_dir / "registry";
  const std::string m_temporary = m_dir / "registry~~new";
  CapturedStderr m_stderr;  // fails the test for any line that it does not take
};

using FileStoreCreate = FileStoreTest;
using FileStoreRead = FileStoreTest;
using FileStoreWrite = FileStoreTest;

TEST_F(FileStoreCreate, TouchesNoFile) {
  const auto store = StoreAt(m_path);
  EXPECT_EQ(store->Capacity(), kCapacity);
  EXPECT_TRUE(std::filesystem::is_empty(m_dir.Path()));
}

TEST_F(FileStoreCreate, KeepsTheCapacityGiven) {
  EXPECT_EQ(FileStore::Create(m_path, 0, 0600)->Capacity(), 0U);
  EXPECT_EQ(FileStore::Create(m_path, 0xFFFFFFFF, 0600)->Capacity(), 0xFFFFFFFF);
}

TEST_F(FileStoreRead, ReadsTheFile) {
  const struct {
    const char* name;
    std::string text;
    std::string read;
  } rows[] = {
      {"an empty file", "", ""},
      {"a text", "[s]\r\nk=v\n\xFF", "[s]\r\nk=v\n\xFF"},
      {"a text with a NUL byte", "a=1\0b=2"s, "a=1"},
      {"two NUL bytes", "a\0b\0c"s, "a"},
      {"a NUL byte at the start", "\0a=1"s, ""},
      {"a NUL byte at the end", "a=1\0"s, "a=1"},
      {"a text longer than the capacity", std::string(kCapacity + 1000, 'x'), std::string(kCapacity + 1000, 'x')},
      {"a text of whole chunks", std::string(1024, 'x'), std::string(1024, 'x')},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    WriteTextFile(m_path, row.text);
    EXPECT_EQ(StoreAt(m_path)->Read(), row.read);
    EXPECT_EQ(ReadTextFile(m_path), row.text) << "reading changes nothing";
  }
}

TEST_F(FileStoreRead, ReadsTheFileAnewEachTime) {
  const auto store = StoreAt(m_path);
  EXPECT_EQ(store->Read(), "");
  WriteTextFile(m_path, "a");
  EXPECT_EQ(store->Read(), "a");
  store->Write("b");
  EXPECT_EQ(store->Read(), "b");
}

TEST_F(FileStoreRead, ReadsAMissingFileAsTheEmptyTextInSilence) {
  EXPECT_EQ(StoreAt(m_path)->Read(), "");
  EXPECT_EQ(StoreAt(m_dir / "no-directory/registry")->Read(), "");
  EXPECT_EQ(m_stderr.Take(), "");
}

TEST_F(FileStoreRead, ReportsADirectory) {
  std::filesystem::create_directory(m_path);
  EXPECT_EQ(StoreAt(m_path)->Read(), "");
  EXPECT_EQ(m_stderr.Take(), "Error reading registry file: 21\n");
}

TEST_F(FileStoreRead, ReportsAFileInThePlaceOfADirectory) {
  WriteTextFile(m_path, "a");
  EXPECT_EQ(StoreAt(m_path + "/registry")->Read(), "");
  EXPECT_EQ(m_stderr.Take(), "Error reading registry file: 20\n");
}

TEST_F(FileStoreRead, ReportsALoopOfLinks) {
  std::filesystem::create_symlink(m_path, m_path);
  EXPECT_EQ(StoreAt(m_path)->Read(), "");
  EXPECT_EQ(m_stderr.Take(), "Error reading registry file: 40\n");
}

TEST_F(FileStoreRead, ReportsAFileThatItMayNotRead) {
  WriteTextFile(m_path, "[s]\n");
  ASSERT_EQ(::chmod(m_path.c_str(), 0), 0);
  EXPECT_EQ(RunInChild(
                [&] { return !test_support::DropCapabilities() ? "not dropped" : "read: " + StoreAt(m_path)->Read(); }),
            "read: ");
  EXPECT_EQ(m_stderr.Take(), "Error reading registry file: 13\n");
}

TEST_F(FileStoreRead, PassesOnOtherExceptions) {
  if (test_support::kSanitized) {
    GTEST_SKIP() << "a sanitizer ends the process when memory runs out";
  }
  if (test_support::kEmulated) {
    GTEST_SKIP() << "the emulator does not limit memory";
  }
  WriteTextFile(m_path, "");
  ASSERT_EQ(::truncate(m_path.c_str(), off_t{1} << 32), 0);
  EXPECT_EQ(RunInChild([&]() -> std::string {
              if (!test_support::LimitResource(RLIMIT_AS, rlim_t{1} << 30)) {
                return "no limit";
              }
              try {
                return "read: " + StoreAt(m_path)->Read();
              } catch (const std::bad_alloc&) {
                return "bad_alloc";
              }
            }),
            "bad_alloc");
  EXPECT_EQ(m_stderr.Take(), "");
}

TEST_F(FileStoreWrite, WritesWhatFitsAndRefusesOneByteMore) {
  const auto store = StoreAt(m_path);
  const std::string longest(kCapacity, 'x');
  store->Write(longest);
  EXPECT_EQ(ReadTextFile(m_path), longest);
  try {
    store->Write(std::string(kCapacity + 1, 'y'));
    ADD_FAILURE() << "no exception";
  } catch (const PersistentStore::Full& e) {
    EXPECT_STREQ(e.what(), "Store full");
  }
  EXPECT_EQ(ReadTextFile(m_path), longest);
  EXPECT_FALSE(Exists(m_temporary));
}

TEST_F(FileStoreWrite, MakesNoFileForATextThatDoesNotFit) {
  EXPECT_THROW(StoreAt(m_path)->Write(std::string(kCapacity + 1, 'y')), PersistentStore::Full);
  EXPECT_TRUE(std::filesystem::is_empty(m_dir.Path()));
}

TEST_F(FileStoreWrite, WritesAnEmptyText) {
  WriteTextFile(m_path, "old");
  FileStore::Create(m_path, 0, 0600)->Write("");
  EXPECT_EQ(ReadTextFile(m_path), "");
}

TEST_F(FileStoreWrite, WritesAllBytesAsTheyAre) {
  StoreAt(m_path)->Write("a\0b\r\n\xFF"s);
  EXPECT_EQ(ReadTextFile(m_path), "a\0b\r\n\xFF"s);
  EXPECT_FALSE(Exists(m_temporary));
}

TEST_F(FileStoreWrite, ReplacesTheFileInOneStep) {
  WriteTextFile(m_path, "old");
  const int reader = ::open(m_path.c_str(), O_RDONLY | O_CLOEXEC);
  StoreAt(m_path)->Write("new text");
  char buffer[16];
  EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(::read(reader, buffer, sizeof buffer))), "old");
  ::close(reader);
  EXPECT_EQ(ReadTextFile(m_path), "new text");
}

TEST_F(FileStoreWrite, GivesTheNewFileItsOwnMode) {
  const struct {
    const char* name;
    mode_t umask;
    mode_t mode;
    mode_t expected;
  } rows[] = {
      {"owner only", 0, 0600, 0600},
      {"all", 0, 0666, 0666},
      {"cut by the umask", 027, 0666, 0640},
      {"nothing left by the umask", 0777, 0600, 0},
  };
  for (const auto& row : rows) {
    for (const bool exists : {false, true}) {
      SCOPED_TRACE(std::string(row.name) + (exists ? ", over a file" : ", new"));
      std::filesystem::remove(m_path);
      if (exists) {
        WriteTextFile(m_path, "old");
        ASSERT_EQ(::chmod(m_path.c_str(), 0644), 0);
      }
      const Umask umask(row.umask);
      FileStore::Create(m_path, kCapacity, row.mode)->Write("new");
      EXPECT_EQ(ModeOf(m_path), row.expected);
    }
  }
}

TEST_F(FileStoreWrite, TakesALeftOverTemporaryFile) {
  WriteTextFile(m_temporary, "left over from a crash, and longer than the new text");
  std::filesystem::permissions(m_temporary, std::filesystem::perms(0640));
  StoreAt(m_path)->Write("new");
  EXPECT_EQ(ReadTextFile(m_path), "new");
  EXPECT_EQ(std::filesystem::status(m_path).permissions(), std::filesystem::perms(0640)) << "its own";
  EXPECT_FALSE(Exists(m_temporary));
}

TEST_F(FileStoreWrite, ReplacesALinkByAFile) {
  WriteTextFile(m_dir / "target", "old");
  std::filesystem::create_symlink("target", m_path);
  StoreAt(m_path)->Write("new");
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(m_path)));
  EXPECT_EQ(ReadTextFile(m_dir / "target"), "old");
}

TEST_F(FileStoreWrite, KeepsOldFileWhenTheFileSystemIsFull) {
  WriteTextFile(m_path, "old");
  std::filesystem::create_symlink("/dev/full", m_temporary);
  const auto store = StoreAt(m_path);
  EXPECT_EQ(WriteFailure(*store, "new"), "No space left on device (28)");
  EXPECT_EQ(ReadTextFile(m_path), "old");
  EXPECT_FALSE(Exists(m_temporary));
  EXPECT_EQ(WriteFailure(*store, "new"), "no exception");
  EXPECT_EQ(ReadTextFile(m_path), "new");
}

TEST_F(FileStoreWrite, KeepsOldFileWhenTheTextIsCutShort) {
  WriteTextFile(m_path, "old");
  EXPECT_EQ(RunInChild([&]() -> std::string {
              std::signal(SIGXFSZ, SIG_IGN);
              return test_support::LimitResource(RLIMIT_FSIZE, 1000)
                         ? WriteFailure(*StoreAt(m_path), std::string(2000, 'x'))
                         : "no limit";
            }),
            "File too large (27)");
  EXPECT_EQ(ReadTextFile(m_path), "old");
  EXPECT_FALSE(Exists(m_temporary));
}

TEST_F(FileStoreWrite, KeepsOldFileWhenRenameFails) {
  std::filesystem::create_directory(m_path);
  EXPECT_EQ(WriteFailure(*StoreAt(m_path), "new"), "Is a directory (21)");
  EXPECT_TRUE(std::filesystem::is_directory(m_path));
  EXPECT_FALSE(Exists(m_temporary));
}

TEST_F(FileStoreWrite, KeepsOldFileWhenTheTemporaryCannotBeMade) {
  WriteTextFile(m_path, "old");
  std::filesystem::create_directory(m_temporary);
  EXPECT_EQ(WriteFailure(*StoreAt(m_path), "new"), m_temporary + ": Is a directory (21)");
  EXPECT_EQ(ReadTextFile(m_path), "old");
}

TEST_F(FileStoreWrite, FailsWhereThereIsNoDirectory) {
  EXPECT_EQ(WriteFailure(*StoreAt(m_dir / "none/registry"), "new"),
            m_dir / "none/registry~~new: No such file or directory (2)");
  EXPECT_TRUE(std::filesystem::is_empty(m_dir.Path()));
}

TEST_F(FileStoreWrite, ChecksAccessToAReadOnlyFileBeforeItMakesATemporaryOne) {
  WriteTextFile(m_path, "old");
  ASSERT_EQ(::chmod(m_path.c_str(), 0400), 0);
  WriteTextFile(m_temporary, "not touched");
  EXPECT_EQ(RunInChild([&]() -> std::string {
              return test_support::DropCapabilities() ? WriteFailure(*StoreAt(m_path), "new") : "not dropped";
            }),
            "Permission denied (13)");
  EXPECT_EQ(ReadTextFile(m_path), "old");
  EXPECT_EQ(ReadTextFile(m_temporary), "not touched");
}

TEST_F(FileStoreWrite, FailsInADirectoryThatItMayNotChange) {
  WriteTextFile(m_path, "old");
  ASSERT_EQ(::chmod(m_dir.Path().c_str(), 0500), 0);
  EXPECT_EQ(RunInChild([&]() -> std::string {
              return test_support::DropCapabilities() ? WriteFailure(*StoreAt(m_path), "new") : "not dropped";
            }),
            m_temporary + ": Permission denied (13)");
  ASSERT_EQ(::chmod(m_dir.Path().c_str(), 0700), 0);
  EXPECT_EQ(ReadTextFile(m_path), "old");
  EXPECT_FALSE(Exists(m_temporary));
}

TEST_F(FileStoreWrite, FailsOnAReadOnlyFileSystem) {
  WriteTextFile(m_path, "old");
  const char* const dir = m_dir.Path().c_str();
  ASSERT_EQ(::mount(dir, dir, nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(::mount(nullptr, dir, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(WriteFailure(*StoreAt(m_path), "new"), "Read-only file system (30)");
  ASSERT_EQ(::umount(dir), 0);
  EXPECT_EQ(ReadTextFile(m_path), "old");
  EXPECT_FALSE(Exists(m_temporary));
}

TEST_F(FileStoreTest, KeepsARegistryFromOneLifeToTheNext) {
  {
    RegistryBackEnd registry(StoreAt(m_path));
    EXPECT_EQ(registry.ReadAllJson(), "{}");
    registry.Write("Net", "IP", "10.0.0.1");
    EXPECT_FALSE(Exists(m_path)) << "the write is put off";
  }
  EXPECT_EQ(ReadTextFile(m_path), "[net]\nip=10.0.0.1\n");
  EXPECT_EQ(ModeOf(m_path), 0600U);
  RegistryBackEnd registry(StoreAt(m_path));
  EXPECT_EQ(registry.Read("net", "ip"), "10.0.0.1");
}

TEST_F(FileStoreTest, StartsARegistryEmptyWhereTheFileCannotBeRead) {
  std::filesystem::create_directory(m_path);
  RegistryBackEnd registry(StoreAt(m_path));
  EXPECT_EQ(m_stderr.Take(), "Error reading registry file: 21\n");
  EXPECT_EQ(registry.ReadAllJson(), "{}");
}

TEST_F(FileStoreTest, WritesARegistryOnceTheFaultIsGone) {
  std::filesystem::create_directory(m_path);
  RegistryBackEnd registry(StoreAt(m_path));
  EXPECT_EQ(m_stderr.Take(), "Error reading registry file: 21\n");
  registry.Write("s", "k", "v");
  EXPECT_THROW(registry.Flush(), bramble::ErrnoException);
  std::filesystem::remove(m_path);
  registry.Flush();
  EXPECT_EQ(ReadTextFile(m_path), "[s]\nk=v\n");
}

}  // namespace
