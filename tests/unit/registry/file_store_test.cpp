// What FileStore adds to bramble::ReadFile and bramble::ReplaceFile.
#include "registry/file_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "lib/platform/errno_exception.h"
#include "registry/registry_back_end.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/throws.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using test_platform::ExpectErrno;
using test_support::ReadTextFile;
using test_support::WriteTextFile;

class FileStoreTest : public testing::Test {
protected:
  const test_support::TempDir m_dir;
  const std::string m_path = m_dir / "registry";
  const std::string m_temporary = m_dir / "registry~~new";
  const std::shared_ptr<FileStore> m_store = FileStore::Create(m_path, kRegistryCapacity, 0640);
  test_support::CapturedStderr m_stderr;  // fails the test for any line that the test does not read
};

using FileStoreRead = FileStoreTest;
using FileStoreWrite = FileStoreTest;

TEST_F(FileStoreTest, HasTheGivenCapacityAndCreatesNoFile) {
  for (const std::uint32_t capacity : {0U, kRegistryCapacity, 0xFFFFFFFFU}) {
    EXPECT_EQ(FileStore::Create(m_path, capacity, 0600)->Capacity(), capacity);
  }
  EXPECT_TRUE(fs::is_empty(m_dir.Path()));
}

TEST_F(FileStoreRead, ReadsTheFileUpToItsFirstNul) {
  const struct {
    const char* name;
    std::string text;
    std::string read;
  } rows[] = {
      {"an empty file", "", ""},
      {"a text", "[s]\r\nk=v\n\xFF", "[s]\r\nk=v\n\xFF"},
      {"two NUL bytes", "a\0b\0c"s, "a"},
      {"a NUL byte at the start", "\0a=1"s, ""},
      {"a NUL byte at the end", "a=1\0"s, "a=1"},
      {"a text longer than the capacity", std::string(kRegistryCapacity + 1, 'x'),
       std::string(kRegistryCapacity + 1, 'x')},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    WriteTextFile(m_path, row.text);
    EXPECT_EQ(m_store->Read(), row.read);
    EXPECT_EQ(ReadTextFile(m_path), row.text) << "reading changes nothing";
  }
}

TEST_F(FileStoreRead, ReadsTheFileAgainEachTime) {
  EXPECT_EQ(m_store->Read(), "") << "the file is missing, which is not reported";
  WriteTextFile(m_path, "a");
  EXPECT_EQ(m_store->Read(), "a");
  m_store->Write("b");
  EXPECT_EQ(m_store->Read(), "b");
}

TEST_F(FileStoreRead, ReportsAFileThatItCannotRead) {
  const std::string denied = m_dir / "denied", loop = m_dir / "loop";
  WriteTextFile(denied, "[s]\n");
  fs::permissions(denied, fs::perms::none);
  fs::create_symlink(loop, loop);
  const struct {
    const char* name;
    std::string path;
    int error;
  } rows[] = {
      {"a directory", m_dir.Path(), EISDIR},
      {"a file in place of the directory", denied + "/registry", ENOTDIR},
      {"a loop of links", loop, ELOOP},
      {"a file without permission to read", denied, EACCES},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string text = test_support::RunInChild([&] {
      return test_support::DropCapabilities() ? FileStore::Create(row.path, 100, 0600)->Read() : "not dropped";
    });
    EXPECT_EQ(text, "");
    EXPECT_EQ(m_stderr.Take(), "Error reading registry file: " + std::to_string(row.error) + "\n");
  }
}

TEST_F(FileStoreWrite, WritesWhatFitsAndRefusesOneByteMore) {
  const std::string longest = "a\0\r\n\xFF"s + std::string(kRegistryCapacity - 5, 'x');
  EXPECT_THROW(m_store->Write(longest + 'x'), PersistentStore::Full);
  EXPECT_TRUE(fs::is_empty(m_dir.Path()));
  m_store->Write(longest);
  EXPECT_EQ(ReadTextFile(m_path), longest);
  EXPECT_THROW(m_store->Write(longest + 'x'), PersistentStore::Full);
  EXPECT_EQ(ReadTextFile(m_path), longest);
  FileStore::Create(m_path, 0, 0600)->Write("");
  EXPECT_EQ(ReadTextFile(m_path), "");
}

// bramble::ReplaceFile has tests for each failing call.
TEST_F(FileStoreWrite, KeepsTheOldFileIfAFailureOccursAndCanWriteLater) {
  WriteTextFile(m_path, "old");
  fs::create_symlink("/dev/full", m_temporary);
  ExpectErrno(ENOSPC, "No space left on device (28)", [&] { m_store->Write("new"); });
  EXPECT_EQ(ReadTextFile(m_path), "old");
  m_store->Write("new");
  EXPECT_EQ(ReadTextFile(m_path), "new");
}

TEST_F(FileStoreWrite, CreatesAFileWithTheModeOfTheStore) {
  const mode_t old_mask = ::umask(0);
  for (const mode_t mask : {0U, 027U, 0777U}) {
    WriteTextFile(m_path, "old");
    ::umask(mask);
    m_store->Write("new");
    EXPECT_EQ(fs::status(m_path).permissions(), fs::perms(0640 & ~mask));
  }
  ::umask(old_mask);
}

TEST_F(FileStoreWrite, KeepsTheModeOfATemporaryFileThatACrashLeft) {
  WriteTextFile(m_temporary, "longer than the new text");
  fs::permissions(m_temporary, fs::perms(0604));
  m_store->Write("new");
  EXPECT_EQ(ReadTextFile(m_path), "new");
  EXPECT_EQ(fs::status(m_path).permissions(), fs::perms(0604));
}

TEST_F(FileStoreWrite, ReplacesALinkByAFile) {
  WriteTextFile(m_dir / "target", "old");
  fs::create_symlink("target", m_path);
  m_store->Write("new");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(m_path)));
  EXPECT_EQ(ReadTextFile(m_dir / "target"), "old");
}

TEST_F(FileStoreTest, KeepsARegistryForTheNextStart) {
  {
    RegistryBackEnd registry(m_store);
    registry.Write("Net", "IP", "10.0.0.1");
    EXPECT_TRUE(fs::is_empty(m_dir.Path())) << "the write is deferred";
  }
  EXPECT_EQ(ReadTextFile(m_path), "[net]\nip=10.0.0.1\n");
  EXPECT_EQ(RegistryBackEnd(m_store).Read("net", "ip"), "10.0.0.1");
}

TEST_F(FileStoreTest, WritesARegistryWhenTheFaultIsGone) {
  fs::create_directory(m_path);
  RegistryBackEnd registry(m_store);
  EXPECT_EQ(m_stderr.Take(), "Error reading registry file: 21\n");
  EXPECT_EQ(registry.ReadAllJson(), "{}");
  registry.Write("s", "k", "v");
  EXPECT_THROW(registry.Flush(), bramble::ErrnoException);
  fs::remove(m_path);
  registry.Flush();
  EXPECT_EQ(ReadTextFile(m_path), "[s]\nk=v\n");
}

}  // namespace
