// The PID file, and the end of a process: real processes, and one that exists only in the test where time matters.
#include "lib/platform/pid_file.h"

#include "tests/unit/platform/victim.h"
#include "tests/unit/platform/wrapped_process_calls.h"

using namespace boost::posix_time;
using namespace test_platform;

namespace {

mode_t Mode(const std::string& path) { return static_cast<mode_t>(std::filesystem::status(path).permissions()); }

std::string TryingHarder(pid_t pid, int signal) {
  return "PID " + std::to_string(pid) + " didn't exit from signal " + std::to_string(signal) + ". Trying harder.\n";
}

class PidFile : public testing::Test {
protected:
  ~PidFile() override { EXPECT_EQ(CountDescriptors(), m_descriptors); }

  CapturedStderr m_captured;
  const TempDir m_dir;
  const std::string m_path = m_dir / "pid";
  const int m_descriptors = CountDescriptors();
};

using WritePidFileTest = PidFile;
using ReadPidFileTest = PidFile;
using KillProcessAndWaitTest = PidFile;

}  // namespace

TEST_F(WritePidFileTest, ReplacesTheTextWithANumberAndANewline) {
  for (const pid_t pid : {4194304, 1}) {
    WritePidFile(m_path, pid);
    EXPECT_EQ(ReadTextFile(m_path), std::to_string(pid) + "\n");
  }
  // The file may get the lowest descriptor.
  EXPECT_EQ(RunInChild([this] {
              ::close(STDIN_FILENO);
              WritePidFile(m_path, 77);
              return ReadTextFile(m_path);
            }),
            "77\n");
}

TEST_F(WritePidFileTest, MakesTheFileReadableByAllAndWritableByTheOwner) {
  constexpr mode_t kMissing = 010000;
  for (const bool mode_can_be_set : {true, false}) {
    for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}}) {
      for (const mode_t old : {kMissing, mode_t{0666}, mode_t{0600}, mode_t{04755}}) {
        SCOPED_TRACE(testing::Message() << std::oct << mask << " over " << old << " " << mode_can_be_set);
        std::filesystem::remove(m_path);
        if (old != kMissing) {
          WriteTextFile(m_path, "1234567890\n");
          ASSERT_EQ(::chmod(m_path.c_str(), old), 0);
        }
        const mode_t before = ::umask(mask);
        if (mode_can_be_set) {
          WritePidFile(m_path, 77);
          EXPECT_EQ(Mode(m_path), 0644U);
        } else {
          // The number is written anyway. Others can never write a new file.
          const FailingCall chmod(ProcessCall::ChangeMode, EPERM);
          WritePidFile(m_path, 77);
          EXPECT_EQ(Mode(m_path), old == kMissing ? 0644 & ~mask : old);
        }
        EXPECT_EQ(::umask(before), mask);
        EXPECT_EQ(ReadTextFile(m_path), "77\n");
      }
    }
  }
}

TEST_F(WritePidFileTest, KeepsTheModeOfAFileThatIsNotRegular) {
  ASSERT_EQ(::mkfifo((m_dir / "fifo").c_str(), 0600), 0);
  std::filesystem::create_symlink("fifo", m_path);
  const int reader = ::open((m_dir / "fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  WritePidFile(m_path, 77);
  char text[8]{};
  EXPECT_EQ(::read(reader, text, sizeof text), 3);
  EXPECT_STREQ(text, "77\n");
  EXPECT_EQ(Mode(m_dir / "fifo"), 0600U);
  ::close(reader);
}

TEST_F(WritePidFileTest, IgnoresAFileThatCannotBeOpenedOrWritten) {
  for (const std::string& path : {m_dir / "missing/pid", m_dir.Path(), "/dev/full"s}) {
    WritePidFile(path, 77);
  }
  EXPECT_TRUE(std::filesystem::is_empty(m_dir.Path()));
}

TEST_F(ReadPidFileTest, ReadsTheNumberAtTheBeginning) {
  const Victim victim("ledgd");
  const std::string pid = std::to_string(victim.Pid());
  for (const std::string& text :
       {pid, pid + "\n", " \n\t" + pid + "\n", "+" + pid, "000" + pid, pid + " 1\n", pid + "junk", pid + "\n1\n"}) {
    SCOPED_TRACE(text);
    WriteTextFile(m_path, text);
    EXPECT_EQ(ReadPidFile(m_path, "ledgd"), victim.Pid());
  }
}

TEST_F(ReadPidFileTest, ReportsAFileThatCannotBeOpenedAsMissing) {
  WriteTextFile(m_path, "1\n");
  ASSERT_EQ(::chmod(m_path.c_str(), 0), 0);
  std::filesystem::create_symlink("loop", m_dir / "loop");
  const std::tuple<std::string, const char*> rows[] = {
      {m_dir / "missing", "ledgd"},
      {m_dir / "missing", "100%d"},
      {m_path + "/x", "ledgd"},
      {m_dir / "loop", "ledgd"},
      {m_path, "ledgd"},
  };
  for (const auto& [path, name] : rows) {
    SCOPED_TRACE(path);
    EXPECT_EQ(RunInChild([&, path = path, name = name] {
                return std::to_string(DropCapabilities() ? ReadPidFile(path, name) : -2);
              }),
              "threw: ReadPidFile:" + std::string(name) + ": No such file or directory (2)");
  }
  ExpectErrno(ENOENT, "ReadPidFile:ledgd: No such file or directory (2)",
              [this] { ReadPidFile(m_dir / "missing", "ledgd"); });
}

TEST_F(ReadPidFileTest, ThrowsIfTheProcessDoesNotExist) {
  Victim victim("ledgd");
  const std::string ended = std::to_string(victim.Pid());
  ::kill(victim.Pid(), SIGKILL);
  victim.Reap();
  std::filesystem::create_directory(m_dir / "directory");
  const std::tuple<const char*, std::string, const char*> rows[] = {
      {"process that has ended", ended + "\n", ended.c_str()},
      {"above every process ID", "99999999\n", "99999999"},
      {"empty file", "", "0"},
      {"newline", "\n", "0"},
      {"no number", "ledgd\n", "0"},
      {"zero", "0\n", "0"},
      {"number after a word", "pid 1\n", "0"},
      {"negative", "-5\n", "-5"},
      {"31 bits and one more", "2147483648\n", "-2147483648"},
      {"32 bits", "4294967295\n", "-1"},
      {"32 bits and one more", "4294967296\n", sizeof(long) > 4 ? "0" : "-1"},
      {"64 bits", "18446744073709551615\n", "-1"},
      {"longer than any number", std::string(100000, '7'), "-1"},
      {"hexadecimal", "0x1\n", "0"},
      {"below -1", "-5\n", "-5"},
      {"above every process ID, which are 22 bits", "4194305\n", "4194305"},
      {"more than 31 bits", "2147483648\n", "-2147483648"},
      {"all of 32 bits", "4294967295\n", "-1"},
      {"zero in its lower 32 bits", "4294967296\n", sizeof(long) == 8 ? "0" : "-1"},
      {"all of 64 bits", "18446744073709551615\n", "-1"},
      {"100000 digits", std::string(100000, '7'), "-1"},
      {"NUL bytes", std::string(4, '\0'), "0"},
      {"directory", "", "0"},
  };
  for (const auto& [name, text, pid] : rows) {
    SCOPED_TRACE(name);
    WriteTextFile(m_path, text);
    const std::string path = name == "directory"s ? m_dir / name : m_path;
    ExpectErrno(ESRCH, "ReadPidFile:ledgd: No such process (3)", [&] { ReadPidFile(path, "ledgd"); });
    EXPECT_EQ(m_captured.Take(), "PID file exists but ledgd process does not exist: /proc/" + std::string(pid) +
                                     "/stat: No such file or directory (2)\n");
  }
}

TEST_F(ReadPidFileTest, ThrowsIfTheProcessHasAnotherName) {
  for (const std::string name : {"other", "ledgdp", "xledgd", "ledg", "LEDGD", "ledgd ", ""}) {
    SCOPED_TRACE(name);
    const Victim victim(name);
    WritePidFile(m_path, victim.Pid());
    for (const std::string wanted : {"ledgd", "%s{}%n"}) {
      ExpectErrno(ESRCH, "ReadPidFile:" + wanted + ": No such process (3)", [&] { ReadPidFile(m_path, wanted); });
      EXPECT_EQ(m_captured.Take(), "PID file exists but " + wanted + " not running\n");
    }
  }
  // The low 32 bits are the process ID of init.
  WriteTextFile(m_path, sizeof(long) > 4 ? "4294967297\n" : "1\n");
  ExpectErrno(ESRCH, "ReadPidFile:ledgd: No such process (3)", [&] { ReadPidFile(m_path, "ledgd"); });
  EXPECT_EQ(m_captured.Take(), "PID file exists but ledgd not running\n");
}

TEST_F(KillProcessAndWaitTest, ReturnsSoonAfterTheProcessHasEnded) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(RunInChild([] {
              std::signal(SIGCHLD, SIG_IGN);  // the kernel then reaps ended children
              const Victim victim("ledgd");
              return std::to_string(KillProcessAndWait(victim.Pid(), SIGTERM, seconds(30)));
            }),
            "-1");
  EXPECT_LT(std::chrono::steady_clock::now() - start, kWaitBound);
}

TEST_F(KillProcessAndWaitTest, SendsTheSignalAndThenKills) {
  const std::tuple<int, int> rows[] = {{SIGTERM, SIGKILL}, {SIGUSR2, SIGUSR2}};
  for (const auto& [signal, end] : rows) {
    SCOPED_TRACE(signal);
    // The process exists until it is reaped.
    Victim victim("ledgd", SIG_IGN);
    EXPECT_EQ(KillProcessAndWait(victim.Pid(), signal, milliseconds(1)), 0);
    EXPECT_EQ(m_captured.Take(), TryingHarder(victim.Pid(), signal));
    EXPECT_EQ(victim.Reap(), end);
  }
}

TEST_F(KillProcessAndWaitTest, ThrowsIfTheSignalCannotBeSent) {
  const auto expect = [this](int error_number, const std::string& text, pid_t pid, int signal) {
    ExpectErrno(error_number, "KillProcessAndWait: " + text, [=] { KillProcessAndWait(pid, signal, seconds(30)); });
    EXPECT_EQ(m_captured.Take(),
              "Failed to send signal " + std::to_string(signal) + " to " + std::to_string(pid) + ".\n");
  };
  Victim victim("ledgd");
  const pid_t pid = victim.Pid();
  expect(EINVAL, "Invalid argument (22)", pid, 4711);
  {
    const FailingCall kill(ProcessCall::Kill, EPERM);
    expect(EPERM, "Operation not permitted (1)", pid, SIGTERM);
  }
  ::kill(pid, SIGKILL);
  victim.Reap();
  expect(ESRCH, "No such process (3)", pid, SIGTERM);
}

TEST_F(KillProcessAndWaitTest, ChecksEveryTenMillisecondsUntilTheTimeout) {
  constexpr int kForEver = 100000;
  constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min() + 2;
  const std::vector<std::string> killed{"kill 77 0", "kill 77 9"};
  // A process that ends after so many signals; then the pairs of a check and a sleep, and the calls that follow.
  const std::tuple<const char*, int, time_duration, timespec, int, std::vector<std::string>, int> rows[] = {
      {"it ends", 3, seconds(2), {1000, 0}, 2, {"kill 77 0", "kill 77 0"}, -1},
      {"it ends at the last moment", 2, milliseconds(10), {1000, 0}, 1, {"kill 77 0"}, -1},
      {"it ends before it is killed", 2, seconds(0), {1000, 0}, 0, killed, -1},
      {"two seconds", kForEver, seconds(2), {1000, 0}, 200, killed, 0},
      {"two seconds with a carry", kForEver, seconds(2), {1000, 999999999}, 200, killed, 0},
      {"half a second with a carry", kForEver, milliseconds(500), {1000, 700000000}, 50, killed, 0},
      {"one and a half seconds", kForEver, milliseconds(1500), {1000, 0}, 150, killed, 0},
      {"no multiple of the interval", kForEver, milliseconds(25), {1000, 0}, 3, killed, 0},
      {"one interval", kForEver, milliseconds(10), {1000, 0}, 1, killed, 0},
      {"a microsecond", kForEver, microseconds(1), {1000, 0}, 1, killed, 0},
      {"none", kForEver, microseconds(0), {1000, 0}, 0, killed, 0},
      {"negative", kForEver, microseconds(-1), {1000, 0}, 0, killed, 0},
      {"lowest", kForEver, microseconds(kLowest), {1000, 0}, 0, killed, 0},
  };
  for (const auto& [name, lives, timeout, start, sleeps, last_calls, result] : rows) {
    SCOPED_TRACE(name);
    const FakeProcess process(lives, start);
    EXPECT_EQ(KillProcessAndWait(77, SIGINT, timeout), result);
    EXPECT_EQ(m_captured.Take(), last_calls == killed ? TryingHarder(77, SIGINT) : "");
    std::vector<std::string> calls{"kill 77 2"};
    for (int i = 0; i < sleeps; ++i) {
      calls.insert(calls.end(), {"kill 77 0", "usleep 10000"});
    }
    calls.insert(calls.end(), last_calls.begin(), last_calls.end());
    EXPECT_EQ(process.Calls(), calls);
  }
}
