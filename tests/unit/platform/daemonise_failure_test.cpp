// Daemons that do not come up, and what their starters say.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "lib/platform/daemonise.h"
#include "lib/platform/monotonic_time.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/daemonise_fixture.h"
#include "tests/unit/platform/wrapped_process_calls.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/private_mounts.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/wrapped_calls.h"

using boost::posix_time::microseconds;
using boost::posix_time::milliseconds;
using boost::posix_time::seconds;
using boost::posix_time::time_duration;
using bramble::Daemonise;
using test_platform::BeReady;
using test_platform::BoundLife;
using test_platform::DaemoniseTest;
using test_platform::DescribeException;
using test_platform::kLong;
using test_platform::kPidFile;
using test_platform::Start;
using test_platform::StaySilent;
using test_platform::WaitUntil;
using test_support::ReadTextFile;
using test_support::RunInChild;
using test_support::TempDir;
using test_support::WriteTextFile;
using testing::AllOf;
using testing::HasSubstr;
using wrapped_calls::FailingCall;
using wrapped_calls::FakeClock;
using wrapped_calls::ProcessCall;
using wrapped_calls::ReplacedWait;

TEST_F(DaemoniseTest, HearsOfADaemonThatDiedBeforeTheStarterWaits) {
  ASSERT_EQ(::mkfifo(kPidFile, 0600), 0);
  EXPECT_THAT(
      Start([](Daemonise&, pid_t) -> std::string {
        const pid_t daemon = ::getpid();
        if (::fork() != 0) {
          ::_exit(3);
        }
        BoundLife();
        WaitUntil([daemon] { return ::getppid() != daemon; });
        return ReadTextFile(kPidFile) == std::to_string(daemon) + "\n" ? "died first," : "wrong PID file";
      }),
      AllOf(HasSubstr("[runtime error: ledgd: Child died early][child exited with 3]"), HasSubstr("died first")));
  EXPECT_EQ(m_captured.Take(), "ledgd: Child died early\n");
}

TEST_F(DaemoniseTest, ThrowsWhenTheDaemonDiesEarly) {
  EXPECT_EQ(Start([](Daemonise&, pid_t) -> std::string { ::_exit(7); }),
            "[runtime error: ledgd: Child died early][child exited with 7]");
  EXPECT_EQ(m_captured.Take(), "ledgd: Child died early\n");
  EXPECT_EQ(Start([](Daemonise&, pid_t) -> std::string {
              std::raise(SIGKILL);
              return "";
            }),
            "[runtime error: ledgd: Child died early][child killed by signal 9]");
  EXPECT_EQ(m_captured.Take(), "ledgd: Child died early\n");
  EXPECT_TRUE(std::filesystem::exists(kPidFile)) << "the PID file stays";
}

TEST_F(DaemoniseTest, ThrowsWhenTheDaemonIsTooSlowAndLetsItRun) {
  EXPECT_THAT(Start(StaySilent, milliseconds(20)),
              AllOf(HasSubstr("[runtime error: ledgd: Child failed to report]"), HasSubstr("<still running>")));
  EXPECT_EQ(m_captured.Take(), "ledgd: Child failed to get going\n");
  EXPECT_TRUE(std::filesystem::exists(kPidFile));
}

TEST_F(DaemoniseTest, NamesTheDaemonInItsMessages) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              BoundLife();
              const pid_t starter = ::getpid();
              Daemonise daemonise("100%s");
              try {
                daemonise.Prepare(kLong);
              } catch (const std::exception& e) {
                return DescribeException(e);
              }
              ::_exit(::getpid() == starter ? 1 : 0);
            }),
            "[runtime error: 100%s: Child died early]");
  EXPECT_EQ(m_captured.Take(), "100%s: Child died early\n");
  EXPECT_TRUE(std::filesystem::exists("/var/run/100%s.pid"));
}

TEST_F(DaemoniseTest, WaitsForBothSignalsNoLongerThanTheTimeout) {
  // Another child ends whenever `interval` is over; 0 for no other child.
  const struct {
    const char* name;
    time_duration timeout;
    std::uint64_t interval;
    std::vector<const char*> limits;
  } rows[] = {
      {"whole seconds", seconds(5), 0, {"5.0"}},
      {"none", seconds(0), 0, {"0.0"}},
      {"microseconds", microseconds(1), 0, {"0.1000"}},
      {"just below a second", microseconds(999999), 0, {"0.999999000"}},
      {"both", microseconds(1500001), 0, {"1.500001000"}},
      {"more than 32 bits of microseconds", seconds(5000), 0, {"5000.0"}},
      {"others end", seconds(5), 1700000, {"5.0", "3.300000000", "1.600000000"}},
      {"another ends when the time is over", seconds(2), 2000000, {"2.0"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    timespec now{1000, 500000000};
    FakeClock clock(now);
    std::string seen;
    const ReplacedWait wait([&](const sigset_t& signals, const timespec& limit) {
      for (int signal = 1; signal < 32; ++signal) {
        seen += ::sigismember(&signals, signal) == 1 ? std::to_string(signal) + "," : "";
      }
      seen += std::to_string(limit.tv_sec) + "." + std::to_string(limit.tv_nsec) + ";";
      if (row.interval != 0 && limit.tv_sec + limit.tv_nsec != 0) {
        now = bramble::AddMicroseconds(now, row.interval);
        clock.Set(now);
        return SIGCHLD;
      }
      errno = EAGAIN;
      return -1;
    });
    // First there is a look for signals from before.
    std::string expected = "10,17,0.0;";
    for (const char* limit : row.limits) {
      expected += std::string("10,17,") + limit + ";";
    }
    EXPECT_EQ(RunInChild([&]() -> std::string {
                BoundLife();
                const pid_t starter = ::getpid();
                Daemonise daemonise("ledgd");
                try {
                  daemonise.Prepare(row.timeout);
                } catch (const std::exception&) {
                  return seen;
                }
                WaitUntil([starter] { return ::getppid() != starter; });
                ::_exit(0);
              }),
              expected);
    EXPECT_EQ(m_captured.Take(), "ledgd: Child failed to get going\n");
  }
}

TEST_F(DaemoniseTest, ThrowsWhenWaitingFails) {
  EXPECT_THAT(Start(StaySilent, microseconds(-1)), HasSubstr("[system call: sigtimedwait: Invalid argument (22)]"));
  EXPECT_EQ(m_captured.Take(), "ledgd: sigtimedwait failed: 22\n");
  const ReplacedWait interrupted([](const sigset_t&, const timespec&) {
    errno = EINTR;
    return -1;
  });
  EXPECT_THAT(Start(StaySilent), HasSubstr("[system call: sigtimedwait: Interrupted system call (4)]"));
  EXPECT_EQ(m_captured.Take(), "ledgd: sigtimedwait failed: 4\n");
}

TEST_F(DaemoniseTest, EndsTheProcessWhenAnUnexpectedSignalComes) {
  const TempDir dir;
  const ReplacedWait wait([&dir](const sigset_t&, const timespec& limit) {
    if (limit.tv_sec == 0) {
      // Nothing is pending before the fork.
      return -1;
    }
    // The daemon opens the kernel log, which must not empty it after the report.
    WaitUntil([&dir] { return std::filesystem::exists(dir / "detached"); });
    return SIGINT;
  });
  EXPECT_EQ(Start([&dir](Daemonise& daemonise, pid_t starter) {
              WriteTextFile(dir / "detached", "");
              return StaySilent(daemonise, starter);
            }),
            "killed by signal " + std::to_string(SIGABRT));
  EXPECT_THAT(test_support::KernelLog(), HasSubstr(": signal < 0\nASSERT Executing lib/platform/daemonise.cpp:"));
}

TEST_F(DaemoniseTest, ThrowsWhenForkingFails) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              const FailingCall fork(ProcessCall::Fork, EAGAIN);
              try {
                Daemonise("ledgd").Prepare(kLong);
              } catch (const std::exception& e) {
                return DescribeException(e);
              }
              return "";
            }),
            "[runtime error: failed to fork: Resource temporarily unavailable]");
  EXPECT_FALSE(std::filesystem::exists(kPidFile));
}

TEST_F(DaemoniseTest, EndsTheProcessWhenTheSignalMaskCannotBeSet) {
  test_support::ClearKernelLog();
  const FailingCall mask(ProcessCall::SignalMask, EINVAL);
  EXPECT_EQ(Start(BeReady), "killed by signal " + std::to_string(SIGABRT));
  EXPECT_EQ(m_captured.Take(), "pthread_sigmask failed: Invalid argument\n");
  EXPECT_THAT(test_support::KernelLog(), HasSubstr(": false\nASSERT Executing lib/platform/daemonise.cpp:"));
  EXPECT_FALSE(std::filesystem::exists(kPidFile));
}

TEST_F(DaemoniseTest, EndsTheDaemonWhenItCannotDetach) {
  const std::string died = "[runtime error: ledgd: Child died early]";
  const struct {
    const char* name;
    ProcessCall call;
    int error_number;
    int successes;
    std::string answer;
    std::string printed;
  } rows[] = {
      {"name", ProcessCall::Prctl, EPERM, 0,
       "in the child [system call: prctl: Operation not permitted (1)]" + died + "[child exited with 0]", ""},
      {"signal mask", ProcessCall::SignalMask, EPERM, 1, died + "[child killed by signal 6]",
       "pthread_sigmask failed: Operation not permitted\n"},
      {"session", ProcessCall::SetSession, EPERM, 0, died + "[child exited with 1]",
       "ledgd: Unable to create new session\n"},
      {"working directory", ProcessCall::Chdir, EACCES, 0, died + "[child exited with 1]",
       "ledgd: Unable to change to root\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const FailingCall failing(row.call, row.error_number, row.successes);
    EXPECT_EQ(Start(BeReady), row.answer);
    EXPECT_EQ(m_captured.Take(), row.printed + "ledgd: Child died early\n");
  }
}
