#include "lib/platform/pid_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "tests/unit/platform/victim.h"
#include "tests/unit/platform/wrapped_process_calls.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/throws.h"

using bramble::ReadPidFile;
using bramble::WritePidFile;
using test_platform::CountDescriptors;
using test_platform::ExpectErrno;
using test_platform::Victim;
using test_support::CapturedStderr;
using test_support::ReadTextFile;
using test_support::RunInChild;
using test_support::TempDir;
using test_support::WriteTextFile;
using wrapped_calls::FailingCall;
using wrapped_calls::ProcessCall;

namespace {

const std::string kNoInstance = "ReadPidFile:ledgd: No such process (3)";
const std::string kNoFile = "ReadPidFile:ledgd: No such file or directory (2)";

mode_t Mode(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

std::string WasNotThere(const std::string& pid) {
  return "PID file exists but ledgd process does not exist: /proc/" + pid + "/stat: No such file or directory (2)\n";
}

}  // namespace

TEST(WritePidFile, WritesADecimalNumberAndALineFeed) {
  const TempDir dir;
  const int descriptors = CountDescriptors();
  WritePidFile(dir / "pid", 1);
  EXPECT_EQ(ReadTextFile(dir / "pid"), "1\n");
  WritePidFile(dir / "pid", 4194304);
  EXPECT_EQ(ReadTextFile(dir / "pid"), "4194304\n");
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST(WritePidFile, ReplacesALongerText) {
  const TempDir dir;
  WriteTextFile(dir / "pid", "1234567890\nand more\n");
  WritePidFile(dir / "pid", 77);
  EXPECT_EQ(ReadTextFile(dir / "pid"), "77\n");
}

TEST(WritePidFile, MakesTheFileReadableByAllAndWritableByTheOwner) {
  constexpr mode_t kMissing = 010000;
  const TempDir dir;
  const std::string path = dir / "pid";
  for (const bool mode_can_be_set : {true, false}) {
    for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}}) {
      for (const mode_t old : {kMissing, mode_t{0666}, mode_t{0600}, mode_t{04755}}) {
        SCOPED_TRACE(testing::Message() << std::oct << mask << " over " << old << " " << mode_can_be_set);
        ::unlink(path.c_str());
        if (old != kMissing) {
          WriteTextFile(path, "1234567890\n");
          ASSERT_EQ(::chmod(path.c_str(), old), 0);
        }
        const mode_t before = ::umask(mask);
        if (mode_can_be_set) {
          WritePidFile(path, 77);
          EXPECT_EQ(Mode(path), 0644U);
        } else {
          // It is written all the same, and a new file is at no time writable by others.
          const FailingCall chmod(ProcessCall::ChangeMode, EPERM);
          WritePidFile(path, 77);
          EXPECT_EQ(Mode(path), old == kMissing ? 0644 & ~mask : old);
        }
        EXPECT_EQ(::umask(before), mask);
        EXPECT_EQ(ReadTextFile(path), "77\n");
      }
    }
  }
}

TEST(WritePidFile, KeepsTheModeOfAFileThatIsNotRegular) {
  const TempDir dir;
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  ASSERT_EQ(::symlink("fifo", (dir / "pid").c_str()), 0);
  const int reader = ::open((dir / "fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  WritePidFile(dir / "pid", 77);
  char text[8]{};
  EXPECT_EQ(::read(reader, text, sizeof text), 3);
  EXPECT_STREQ(text, "77\n");
  EXPECT_EQ(Mode(dir / "fifo"), 0600U);
  ::close(reader);
}

TEST(WritePidFile, PassesOverAFileThatCannotBeOpened) {
  const TempDir dir;
  const CapturedStderr silent;
  WritePidFile(dir / "missing/pid", 77);
  WritePidFile(dir.Path(), 77);
  EXPECT_NE(::access((dir / "missing").c_str(), F_OK), 0);
}

TEST(WritePidFile, PassesOverAFullDisk) {
  const CapturedStderr silent;
  WritePidFile("/dev/full", 77);
}

TEST(ReadPidFile, ReturnsTheProcessOfThatName) {
  const TempDir dir;
  const CapturedStderr silent;
  const Victim victim("ledgd");
  const int descriptors = CountDescriptors();
  WritePidFile(dir / "pid", victim.Pid());
  EXPECT_EQ(ReadPidFile(dir / "pid", "ledgd"), victim.Pid());
  EXPECT_EQ(CountDescriptors(), descriptors);
}

TEST(ReadPidFile, ReadsTheNumberAtTheBeginning) {
  const TempDir dir;
  const CapturedStderr silent;
  const Victim victim("ledgd");
  const std::string pid = std::to_string(victim.Pid());
  for (const std::string& text :
       {pid, pid + "\n", " \n\t" + pid + "\n", "+" + pid, "000" + pid, pid + " 1\n", pid + "junk", pid + "\n1\n"}) {
    SCOPED_TRACE(text);
    WriteTextFile(dir / "pid", text);
    EXPECT_EQ(ReadPidFile(dir / "pid", "ledgd"), victim.Pid());
  }
}

TEST(ReadPidFile, ThrowsForAFileThatIsMissing) {
  const TempDir dir;
  const CapturedStderr silent;
  ExpectErrno(ENOENT, kNoFile, [&] { ReadPidFile(dir / "pid", "ledgd"); });
  ExpectErrno(ENOENT, "ReadPidFile:100%d: No such file or directory (2)", [&] { ReadPidFile(dir / "pid", "100%d"); });
}

TEST(ReadPidFile, TakesAnyFailureToOpenForAMissingFile) {
  const TempDir dir;
  WriteTextFile(dir / "pid", "1\n");
  ASSERT_EQ(::chmod((dir / "pid").c_str(), 0), 0);
  ASSERT_EQ(::symlink("loop", (dir / "loop").c_str()), 0);
  const CapturedStderr silent;
  ExpectErrno(ENOENT, kNoFile, [&] { ReadPidFile(dir / "pid/x", "ledgd"); });
  ExpectErrno(ENOENT, kNoFile, [&] { ReadPidFile(dir / "loop", "ledgd"); });
  EXPECT_EQ(RunInChild([&]() -> std::string {
              if (!test_support::DropCapabilities() || ::access((dir / "pid").c_str(), R_OK) == 0) {
                return "may still read";
              }
              ReadPidFile(dir / "pid", "ledgd");
              return "";
            }),
            "threw: " + kNoFile);
}

TEST(ReadPidFile, ThrowsWhenThereIsNoSuchProcess) {
  const TempDir dir;
  Victim victim("ledgd");
  const std::string gone = std::to_string(victim.Pid());
  ::kill(victim.Pid(), SIGKILL);
  victim.Reap();
  const struct {
    const char* name;
    std::string text;
    std::string pid;
  } rows[] = {
      {"process that has ended", gone + "\n", gone},
      {"empty file", "", "0"},
      {"no number", "ledgd\n", "0"},
      {"zero", "0\n", "0"},
      {"number behind a word", "pid 1\n", "0"},
      {"negative", "-1\n", "-1"},
      {"too great for any number", "99999999999999999999999\n", "-1"},
      {"hexadecimal", "0x1\n", "0"},
      {"below -1", "-5\n", "-5"},
      {"above every process ID, which are 22 bits", "4194305\n", "4194305"},
      {"more than 31 bits", "2147483648\n", "-2147483648"},
      {"all of 32 bits", "4294967295\n", "-1"},
      {"zero in its lower 32 bits", "4294967296\n", sizeof(long) == 8 ? "0" : "-1"},
      {"all of 64 bits", "18446744073709551615\n", "-1"},
      {"100000 digits", std::string(100000, '7'), "-1"},
      {"NUL bytes", std::string(4, '\0'), "0"},
  };
  CapturedStderr captured;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    WriteTextFile(dir / "pid", row.text);
    ExpectErrno(ESRCH, kNoInstance, [&] { ReadPidFile(dir / "pid", "ledgd"); });
    EXPECT_EQ(captured.Take(), WasNotThere(row.pid));
  }
  SCOPED_TRACE("directory");
  ExpectErrno(ESRCH, kNoInstance, [&] { ReadPidFile(dir.Path(), "ledgd"); });
  EXPECT_EQ(captured.Take(), WasNotThere("0"));
}

TEST(ReadPidFile, ThrowsWhenTheProcessHasAnotherName) {
  const TempDir dir;
  CapturedStderr captured;
  for (const char* name : {"other", "ledgdp", "xledgd", "ledg", "LEDGD", "ledgd ", ""}) {
    SCOPED_TRACE(name);
    const Victim victim(name);
    WritePidFile(dir / "pid", victim.Pid());
    ExpectErrno(ESRCH, kNoInstance, [&] { ReadPidFile(dir / "pid", "ledgd"); });
    EXPECT_EQ(captured.Take(), "PID file exists but ledgd not running\n");
  }
}

TEST(ReadPidFile, ThrowsWhenTheLower32BitsNameInit) {
  const TempDir dir;
  CapturedStderr captured;
  WriteTextFile(dir / "pid", "4294967297\n");
  ExpectErrno(ESRCH, kNoInstance, [&] { ReadPidFile(dir / "pid", "ledgd"); });
  EXPECT_EQ(captured.Take(), sizeof(long) == 8 ? "PID file exists but ledgd not running\n" : WasNotThere("-1"));
}

TEST(ReadPidFile, PrintsAnyNameAsItIs) {
  const TempDir dir;
  CapturedStderr captured;
  const Victim victim("other");
  WritePidFile(dir / "pid", victim.Pid());
  ExpectErrno(ESRCH, "ReadPidFile:%s{}%n: No such process (3)", [&] { ReadPidFile(dir / "pid", "%s{}%n"); });
  EXPECT_EQ(captured.Take(), "PID file exists but %s{}%n not running\n");
}
