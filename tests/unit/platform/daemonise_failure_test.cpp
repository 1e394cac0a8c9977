// Daemons that do not become ready, and what their starters report.

#include "lib/platform/monotonic_time.h"
#include "tests/unit/platform/daemonise_fixture.h"
#include "tests/unit/platform/wrapped_process_calls.h"

using namespace test_platform;
using testing::AllOf;
using testing::HasSubstr;

namespace {

// Ends the daemon while its starter hangs in opening the PID file, a FIFO. A child of the daemon then reads the FIFO.
std::string DieBeforeTheStarterWaits(const std::string& answer) {
  const pid_t daemon = ::getpid();
  if (::fork() != 0) {
    ::_exit(3);
  }
  BoundLife();
  WaitUntilOrphaned(daemon);
  return ReadTextFile(kPidFile) == std::to_string(daemon) + "\n" ? answer : "wrong PID file";
}

}  // namespace

TEST_F(DaemoniseTest, HearsADaemonThatDiesBeforeTheStarterWaits) {
  ASSERT_EQ(::mkfifo(kPidFile, 0600), 0);
  EXPECT_THAT(
      Start([](Daemonise&, pid_t) { return DieBeforeTheStarterWaits("died first,"); }),
      AllOf(HasSubstr("[runtime error: ledgd: Child died early][child exited with 3]"), HasSubstr("died first")));
  EXPECT_EQ(m_captured.Take(), "ledgd: Child died early\n");
}

TEST_F(DaemoniseTest, HearsADaemonThatIsReadyAndDiesBeforeTheStarterWaits) {
  ASSERT_EQ(::mkfifo(kPidFile, 0600), 0);
  EXPECT_EQ(Start([](Daemonise& daemonise, pid_t) {
              daemonise.Signal();
              return DieBeforeTheStarterWaits("reported and died");
            }),
            "reported and died");
}

TEST_F(DaemoniseTest, ThrowsIfTheDaemonDiesEarly) {
  const std::tuple<const char*, int, const char*> rows[] = {
      {"ledgd", 0, "[child exited with 7]"},
      {"ledgd", SIGKILL, "[child killed by signal 9]"},
      {"100%s", 0, "[child exited with 7]"},
  };
  for (const auto& [name, signal, end] : rows) {
    SCOPED_TRACE(end);
    EXPECT_EQ(Start(
                  [signal = signal](Daemonise&, pid_t) -> std::string {
                    std::raise(signal);
                    ::_exit(7);
                  },
                  kLong, name),
              "[runtime error: " + std::string(name) + ": Child died early]" + end);
    EXPECT_EQ(m_captured.Take(), std::string(name) + ": Child died early\n");
    EXPECT_TRUE(std::filesystem::exists("/var/run/" + std::string(name) + ".pid")) << "nothing removes the file";
  }
}

TEST_F(DaemoniseTest, ThrowsIfTheDaemonIsTooSlowAndLeavesItRunning) {
  EXPECT_THAT(Start(StaySilent, milliseconds(20)),
              AllOf(HasSubstr("[runtime error: ledgd: Child failed to report]"), HasSubstr("<still running>")));
  EXPECT_EQ(m_captured.Take(), "ledgd: Child failed to get going\n");
  EXPECT_TRUE(std::filesystem::exists(kPidFile));
}

TEST_F(DaemoniseTest, WaitsForBothSignalsUntilTheTimeout) {
  // Another child ends after each `interval`; 0 for no other child.
  const std::tuple<const char*, time_duration, std::uint64_t, std::vector<const char*>> rows[] = {
      {"whole seconds", seconds(5), 0, {"5.0"}},
      {"none", seconds(0), 0, {"0.0"}},
      {"microseconds", microseconds(1), 0, {"0.1000"}},
      {"just below a second", microseconds(999999), 0, {"0.999999000"}},
      {"seconds and microseconds", microseconds(1500001), 0, {"1.500001000"}},
      {"more than 32 bits of microseconds", seconds(5000), 0, {"5000.0"}},
      {"others end", seconds(5), 1700000, {"5.0", "3.300000000", "1.600000000"}},
      {"others end after whole seconds", seconds(5), 2000000, {"5.0", "3.0", "1.0"}},
      {"another ends at the timeout", seconds(2), 2000000, {"2.0"}},
  };
  for (const auto& [name, timeout, interval, limits] : rows) {
    SCOPED_TRACE(name);
    timespec now{1000, 500000000};
    FakeClock clock(now);
    const ReplacedWait wait([&, interval = interval](const sigset_t& signals, const timespec& limit) {
      for (int signal = 1; signal < 32; ++signal) {
        if (::sigismember(&signals, signal) == 1) {
          std::fprintf(stderr, "%d,", signal);
        }
      }
      std::fprintf(stderr, "%ld.%ld\n", static_cast<long>(limit.tv_sec), limit.tv_nsec);
      if (interval != 0 && limit.tv_sec + limit.tv_nsec != 0) {
        now = AddMicroseconds(now, interval);
        clock.Set(now);
        errno = 0;
        return SIGCHLD;
      }
      errno = EAGAIN;
      return -1;
    });
    EXPECT_THAT(Start(StaySilent, timeout), HasSubstr("[runtime error: ledgd: Child failed to report]"));
    // First it discards signals that were pending.
    std::string expected = "10,17,0.0\n";
    for (const char* limit : limits) {
      expected += std::string("10,17,") + limit + "\n";
    }
    EXPECT_EQ(m_captured.Take(), expected + "ledgd: Child failed to get going\n");
  }
}

TEST_F(DaemoniseTest, ThrowsIfTheWaitFails) {
  EXPECT_THAT(Start(StaySilent, microseconds(-1)), HasSubstr("[system call: sigtimedwait: Invalid argument (22)]"));
  EXPECT_EQ(m_captured.Take(), "ledgd: sigtimedwait failed: 22\n");
  const ReplacedWait interrupted([](const sigset_t&, const timespec&) {
    errno = EINTR;
    return -1;
  });
  EXPECT_THAT(Start(StaySilent), HasSubstr("[system call: sigtimedwait: Interrupted system call (4)]"));
  EXPECT_EQ(m_captured.Take(), "ledgd: sigtimedwait failed: 4\n");
}

TEST_F(DaemoniseTest, AbortsOnAnUnexpectedSignal) {
  const TempDir dir;
  const ReplacedWait wait([&dir](const sigset_t&, const timespec& limit) {
    if (limit.tv_sec == 0) {
      return -1;  // nothing is pending before the fork
    }
    // The daemon opens the kernel log, which must not truncate it after the report.
    WaitUntil([&dir] { return std::filesystem::exists(dir / "detached"); });
    return SIGINT;
  });
  EXPECT_EQ(Start([&dir](Daemonise& daemonise, pid_t starter) {
              WriteTextFile(dir / "detached", "");
              return StaySilent(daemonise, starter);
            }),
            "killed by signal " + std::to_string(SIGABRT));
  EXPECT_THAT(KernelLog(), HasSubstr(": signal < 0\nASSERT Executing lib/platform/daemonise.cpp:"));
}

TEST_F(DaemoniseTest, ReportsTheCallThatFails) {
  const std::string died = "[runtime error: ledgd: Child died early]";
  const std::string said = "ledgd: Child died early\n";
  const struct {
    ProcessCall call;
    int error_number;
    int successes;
    std::string answer;
    std::string printed;
    bool forks;
  } rows[] = {
      {ProcessCall::SignalMask, EINVAL, 0, "killed by signal 6", "pthread_sigmask failed: Invalid argument\n", false},
      // The first fork is the one of the test.
      {ProcessCall::Fork, EAGAIN, 1, "[runtime error: failed to fork: Resource temporarily unavailable]", "", false},
      {ProcessCall::Prctl, EPERM, 0,
       "in the child [system call: prctl: Operation not permitted (1)]" + died + "[child exited with 0]", said, true},
      {ProcessCall::SignalMask, EPERM, 1, died + "[child killed by signal 6]",
       "pthread_sigmask failed: Operation not permitted\n" + said, true},
      {ProcessCall::SetSession, EPERM, 0, died + "[child exited with 1]",
       "ledgd: Unable to create new session\n" + said, true},
      {ProcessCall::Chdir, EACCES, 0, died + "[child exited with 1]", "ledgd: Unable to change to root\n" + said, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.printed);
    std::filesystem::remove(kPidFile);
    ClearKernelLog();
    const FailingCall failing(row.call, row.error_number, row.successes);
    EXPECT_EQ(Start(BeReady), row.answer);
    EXPECT_EQ(m_captured.Take(), row.printed);
    EXPECT_EQ(std::filesystem::exists(kPidFile), row.forks);
    EXPECT_EQ(KernelLog().find(": false\nASSERT Executing lib/platform/daemonise.cpp:") != std::string::npos,
              row.call == ProcessCall::SignalMask);
  }
}
