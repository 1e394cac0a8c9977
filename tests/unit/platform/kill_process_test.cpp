// The end of a process: real ones, and one that exists only in the test where time matters.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "lib/platform/pid_file.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/victim.h"
#include "tests/unit/platform/wrapped_process_calls.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/throws.h"

using boost::posix_time::microseconds;
using boost::posix_time::milliseconds;
using boost::posix_time::seconds;
using bramble::KillProcessAndWait;
using test_platform::ExpectErrno;
using test_platform::Victim;
using test_support::CapturedStderr;
using test_support::RunInChild;
using testing::ElementsAre;
using wrapped_calls::FakeProcess;

namespace {

std::string TryingHarder(pid_t pid, int signal) {
  return "PID " + std::to_string(pid) + " didn't exit from signal " + std::to_string(signal) + ". Trying harder.\n";
}

}  // namespace

TEST(KillProcessAndWait, ReturnsSoonWhenTheProcessGoes) {
  const CapturedStderr silent;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(RunInChild([] {
              // Ended children are gone at once, without anybody waiting for them.
              std::signal(SIGCHLD, SIG_IGN);
              const Victim victim("ledgd");
              return std::to_string(KillProcessAndWait(victim.Pid(), SIGTERM, seconds(30)));
            }),
            "-1");
  EXPECT_LT(std::chrono::steady_clock::now() - start, test_platform::kWaitBound);
}

TEST(KillProcessAndWait, KillsAProcessThatDoesNotGo) {
  CapturedStderr captured;
  Victim victim("ledgd", SIG_IGN);
  EXPECT_EQ(KillProcessAndWait(victim.Pid(), SIGTERM, milliseconds(30)), 0);
  EXPECT_EQ(captured.Take(), TryingHarder(victim.Pid(), 15));
  EXPECT_EQ(victim.Reap(), SIGKILL);
}

TEST(KillProcessAndWait, SendsTheGivenSignal) {
  CapturedStderr captured;
  Victim victim("ledgd", SIG_IGN);
  EXPECT_EQ(KillProcessAndWait(victim.Pid(), SIGUSR2, milliseconds(1)), 0);
  EXPECT_EQ(captured.Take(), TryingHarder(victim.Pid(), SIGUSR2));
  EXPECT_EQ(victim.Reap(), SIGUSR2) << "not reaped, the process counts as still there";
}

TEST(KillProcessAndWait, ThrowsWhenTheSignalCannotBeSent) {
  CapturedStderr captured;
  Victim victim("ledgd");
  const std::string pid = std::to_string(victim.Pid());
  ExpectErrno(EINVAL, "KillProcessAndWait: Invalid argument (22)",
              [&] { KillProcessAndWait(victim.Pid(), 4711, seconds(30)); });
  EXPECT_EQ(captured.Take(), "Failed to send signal 4711 to " + pid + ".\n");
  {
    const wrapped_calls::FailingCall refused(wrapped_calls::ProcessCall::Kill, EPERM);
    ExpectErrno(EPERM, "KillProcessAndWait: Operation not permitted (1)",
                [&] { KillProcessAndWait(victim.Pid(), SIGTERM, seconds(30)); });
  }
  EXPECT_EQ(captured.Take(), "Failed to send signal 15 to " + pid + ".\n");
  const pid_t gone = victim.Pid();
  ::kill(gone, SIGKILL);
  victim.Reap();
  ExpectErrno(ESRCH, "KillProcessAndWait: No such process (3)",
              [&] { KillProcessAndWait(gone, SIGTERM, seconds(30)); });
  EXPECT_EQ(captured.Take(), "Failed to send signal 15 to " + pid + ".\n");
}

TEST(KillProcessAndWait, LooksEveryTenMillisecondsUntilTheProcessIsGone) {
  const CapturedStderr silent;
  const FakeProcess process(3);
  EXPECT_EQ(KillProcessAndWait(77, SIGTERM, seconds(2)), -1);
  EXPECT_THAT(process.Calls(), ElementsAre("kill 77 15", "kill 77 0", "usleep 10000", "kill 77 0", "usleep 10000",
                                           "kill 77 0", "kill 77 0"));
}

TEST(KillProcessAndWait, WaitsNoLongerThanTheTimeout) {
  const struct {
    const char* name;
    boost::posix_time::time_duration timeout;
    timespec start;
    long sleeps;
  } rows[] = {
      {"two seconds", seconds(2), {1000, 0}, 200},
      {"two seconds over the turn of a second", seconds(2), {1000, 999999999}, 200},
      {"half a second over the turn", milliseconds(500), {1000, 700000000}, 50},
      {"one and a half seconds", milliseconds(1500), {1000, 0}, 150},
      {"no whole number of looks", milliseconds(25), {1000, 0}, 3},
      {"one look", milliseconds(10), {1000, 0}, 1},
      {"a moment", microseconds(1), {1000, 0}, 1},
      {"none", microseconds(0), {1000, 0}, 0},
      {"less than none", microseconds(-1), {1000, 0}, 0},
      {"the least", microseconds(std::numeric_limits<std::int64_t>::min() + 2), {1000, 0}, 0},
  };
  CapturedStderr captured;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const FakeProcess process(100000, row.start);
    EXPECT_EQ(KillProcessAndWait(77, SIGINT, row.timeout), 0);
    EXPECT_EQ(captured.Take(), TryingHarder(77, 2));
    std::vector<std::string> calls{"kill 77 2"};
    for (long i = 0; i < row.sleeps; ++i) {
      calls.insert(calls.end(), {"kill 77 0", "usleep 10000"});
    }
    calls.insert(calls.end(), {"kill 77 0", "kill 77 9"});
    EXPECT_EQ(process.Calls(), calls);
  }
}

TEST(KillProcessAndWait, SparesAProcessThatGoesInTheLastMoment) {
  const CapturedStderr silent;
  const FakeProcess process(2);
  EXPECT_EQ(KillProcessAndWait(77, SIGTERM, milliseconds(10)), -1);
  EXPECT_THAT(process.Calls(), ElementsAre("kill 77 15", "kill 77 0", "usleep 10000", "kill 77 0"));
}

TEST(KillProcessAndWait, ReturnsWhatTheLastSignalReturns) {
  CapturedStderr captured;
  const FakeProcess process(2);
  EXPECT_EQ(KillProcessAndWait(77, SIGTERM, seconds(0)), -1);
  EXPECT_EQ(captured.Take(), TryingHarder(77, 15));
  EXPECT_THAT(process.Calls(), ElementsAre("kill 77 15", "kill 77 0", "kill 77 9"));
}
