#include <sched.h>
#include <sys/mount.h>

#include "lib/platform/posix_helpers.h"
#include "tests/unit/platform/platform_test.h"

namespace fs = std::filesystem;

using namespace test_platform;

namespace {

class ReplaceFileTest : public testing::Test {
protected:
  ~ReplaceFileTest() override {
    EXPECT_FALSE(fs::exists(fs::symlink_status(m_temporary)));
    EXPECT_EQ(CountDescriptors(), m_descriptors);
  }

  const int m_descriptors = CountDescriptors();
  const TempDir m_dir;
  const std::string m_path = m_dir / "file";
  const std::string m_temporary = m_dir / "file~~new";
};

unsigned Mode(const std::string& path) { return static_cast<unsigned>(fs::status(path).permissions()); }

// For this process only, which leaves the mount namespace of the program.
void MakeReadOnly(const std::string& path) {
  // Flags that the outer mount may lock must be repeated.
  constexpr unsigned long kFlags = MS_BIND | MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV;
  EXPECT_EQ(::unshare(CLONE_NEWNS), 0);
  EXPECT_EQ(::mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0);
  EXPECT_EQ(::mount(nullptr, path.c_str(), nullptr, kFlags, nullptr), 0);
}

// The name and the text or the kind of each file. The directory may be missing.
std::string Contents(const TempDir& dir) {
  std::vector<std::string> contents;
  std::error_code missing;
  for (const fs::directory_entry& entry : fs::directory_iterator(dir.Path(), missing)) {
    const fs::file_type type = entry.symlink_status().type();
    contents.push_back(entry.path().filename().string() + ": " +
                       (type == fs::file_type::regular ? ReadTextFile(entry.path()) : testing::PrintToString(type)));
  }
  std::sort(contents.begin(), contents.end());
  return testing::PrintToString(contents);
}

}  // namespace

TEST_F(ReplaceFileTest, WritesTextsOfAnySize) {
  for (const std::string& text : {Ruler(100000), Ruler(16383), Ruler(513), Ruler(512), AllBytes(), "x"s, ""s}) {
    SCOPED_TRACE(text.size());
    ReplaceFile(m_path, text, 0600);
    EXPECT_EQ(ReadTextFile(m_path), text);
    EXPECT_FALSE(fs::exists(m_temporary));
  }
}

TEST_F(ReplaceFileTest, KeepsTheOldFileUntilTheNewOneIsComplete) {
  WriteTextFile(m_path, "old");
  fs::create_hard_link(m_path, m_dir / "link");
  bool looked = false;
  {
    const ReplacedWrite observed([&](int fd, const void* buffer, std::size_t length) {
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
  EXPECT_EQ(ReadTextFile(m_dir / "link"), "old") << "the old file was rewritten";
}

TEST_F(ReplaceFileTest, SetsTheModeSubjectToTheUmaskWhateverTheOldMode) {
  const std::tuple<const char*, mode_t, mode_t, unsigned> rows[] = {
      {"private", 0600, 0022, 0600},
      {"private, umask 0", 0600, 0, 0600},
      {"public", 0666, 0022, 0644},
      {"public, umask 0", 0666, 0, 0666},
      {"not writable by the owner", 0600, 0277, 0400},
  };
  for (const auto& [name, mode, mask, result] : rows) {
    for (const bool exists : {false, true}) {
      SCOPED_TRACE(name + std::string(exists ? ", over a file" : ""));
      fs::remove(m_path);
      if (exists) {
        WriteTextFile(m_path, "old");
        fs::permissions(m_path, fs::perms(0644));
      }
      const mode_t before = ::umask(mask);
      ReplaceFile(m_path, "text", mode);
      ::umask(before);
      EXPECT_EQ(Mode(m_path), result);
    }
  }
}

TEST_F(ReplaceFileTest, ReusesATemporaryFileThatACrashLeft) {
  WriteTextFile(m_temporary, "a longer text from before");
  fs::permissions(m_temporary, fs::perms(0640));
  ReplaceFile(m_path, "new", 0600);
  EXPECT_EQ(ReadTextFile(m_path), "new");
  EXPECT_EQ(Mode(m_path), 0640U) << "it keeps its mode";
}

TEST_F(ReplaceFileTest, RemovesTheTemporaryFileIfThereIsNoSpace) {
  for (const char* const files : {"{}", "{ \"file: old\" }"}) {
    SCOPED_TRACE(files);
    fs::create_symlink("/dev/full", m_temporary);
    ExpectErrno(ENOSPC, "No space left on device (28)", [this] { ReplaceFile(m_path, "new", 0600); });
    EXPECT_EQ(Contents(m_dir), files);
    WriteTextFile(m_path, "old");
  }
}

TEST_F(ReplaceFileTest, ChangesNothingIfAnotherCallFails) {
  using Dir = const TempDir&;
  const auto leave_temporary = [](Dir dir) { WriteTextFile(dir / "file~~new", "left by a crash"); };
  const auto restrict_mode = [](const std::string& path, fs::perms mode) {
    fs::permissions(path, mode);
    ASSERT_TRUE(DropCapabilities());
  };
  // Each case prepares its directory and perhaps its process, a child. "~" is the path of the temporary file.
  const std::tuple<const char*, bool, int, std::string, std::function<void(Dir)>> rows[] = {
      {"file is a directory", false, EISDIR, "Is a directory (21)",
       [](Dir dir) {
         fs::remove(dir / "file");
         fs::create_directory(dir / "file");
       }},
      {"file is a link to itself", false, ELOOP, "Too many levels of symbolic links (40)",
       [](Dir dir) {
         fs::remove(dir / "file");
         fs::create_symlink("file", dir / "file");
       }},
      {"temporary file is a directory", false, EISDIR, "~: Is a directory (21)",
       [](Dir dir) { fs::create_directory(dir / "file~~new"); }},
      {"no directory", false, ENOENT, "~: No such file or directory (2)", [](Dir dir) { fs::remove_all(dir.Path()); }},
      {"short write", true, EFBIG, "File too large (27)", [](Dir) { LimitFileSize(100); }},
      {"read-only file", true, EROFS, "Read-only file system (30)",
       [&](Dir dir) {
         leave_temporary(dir);
         MakeReadOnly(dir / "file");
       }},
      {"read-only directory", true, EROFS, "~: Read-only file system (30)",
       [](Dir dir) {
         fs::remove(dir / "file");
         MakeReadOnly(dir.Path());
       }},
      {"no permission to write the file", true, EACCES, "Permission denied (13)",
       [&](Dir dir) {
         leave_temporary(dir);
         restrict_mode(dir / "file", fs::perms(0400));
       }},
      {"no permission to create a file", true, EACCES, "~: Permission denied (13)",
       [&](Dir dir) { restrict_mode(dir.Path(), fs::perms(0500)); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::get<0>(row));
    const TempDir dir;
    const auto check = [&] {
      const auto& [name, in_child, error_number, text, prepare] = row;
      const std::string path = dir / "file";
      WriteTextFile(path, "old");
      prepare(dir);
      const std::string before = Contents(dir);
      const int descriptors = CountDescriptors();
      ExpectErrno(error_number, text[0] == '~' ? path + "~~new" + text.substr(1) : text,
                  [&path] { ReplaceFile(path, Ruler(300), 0600); });
      EXPECT_EQ(CountDescriptors(), descriptors);
      EXPECT_EQ(Contents(dir), before);
    };
    if (std::get<1>(row)) {
      EXPECT_IN_CHILD(check());
    } else {
      check();
    }
  }
}
