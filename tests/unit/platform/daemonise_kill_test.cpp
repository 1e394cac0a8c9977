// Signals between daemons and those who start and stop them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include "lib/platform/daemonise.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/daemonise_fixture.h"
#include "tests/unit/platform/victim.h"
#include "tests/unit/platform/wrapped_process_calls.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/throws.h"

using boost::posix_time::milliseconds;
using bramble::Daemonise;
using test_platform::BoundLife;
using test_platform::DaemoniseTest;
using test_platform::ExpectErrno;
using test_platform::kLong;
using test_platform::kPidFile;
using test_platform::Start;
using test_platform::Victim;
using test_platform::WaitUntil;
using test_support::ReadTextFile;
using test_support::RunInChild;
using test_support::WriteTextFile;
using testing::ElementsAre;
using testing::HasSubstr;
using wrapped_calls::FailingCall;
using wrapped_calls::FakeProcess;
using wrapped_calls::ProcessCall;

TEST_F(DaemoniseTest, ReturnsWhatSendingTheSignalReturns) {
  EXPECT_EQ(RunInChild([] {
              const FailingCall kill(ProcessCall::Kill, EPERM);
              return std::to_string(Daemonise("ledgd").Signal());
            }),
            "-1");
}

TEST_F(DaemoniseTest, SignalsTheParentWhenNoStarterIsOnRecord) {
  const FakeProcess parent(1);
  EXPECT_EQ(Daemonise("ledgd").Signal(), 0);
  EXPECT_THAT(parent.Calls(), ElementsAre("kill " + std::to_string(::getppid()) + " 10"));
}

TEST_F(DaemoniseTest, SignalsNobodyWhenTheStarterIsGone) {
  EXPECT_THAT(Start(
                  [](Daemonise& daemonise, pid_t starter) {
                    WaitUntil([starter] { return ::getppid() != starter; });
                    const FakeProcess adopter(1);
                    const int result = daemonise.Signal();
                    const int error_number = errno;
                    return "<" + std::to_string(result) + ", error " + std::to_string(error_number) + ", " +
                           std::to_string(adopter.Calls().size()) + " signals>";
                  },
                  milliseconds(20)),
              HasSubstr("<-1, error 3, 0 signals>"));
  EXPECT_EQ(m_captured.Take(), "ledgd: Child failed to get going\n");
}

TEST_F(DaemoniseTest, StopsARunningDaemon) {
  EXPECT_EQ(RunInChild([]() -> std::string {
              BoundLife();
              // The daemon becomes this process's child when its starter goes.
              ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
              const pid_t starter = ::fork();
              if (starter == 0) {
                Daemonise daemonise("ledgd");
                daemonise.Prepare(kLong);
                BoundLife();
                daemonise.Signal();
                for (;;) {
                  ::pause();
                }
              }
              int status = -1;
              ::waitpid(starter, &status, 0);
              // Ended children are gone at once.
              std::signal(SIGCHLD, SIG_IGN);
              return std::to_string(status) + " " + std::to_string(Daemonise("ledgd").Kill(kLong));
            }),
            "0 -1");
  EXPECT_TRUE(std::filesystem::exists(kPidFile)) << "the PID file stays";
}

TEST_F(DaemoniseTest, StopsWithSigterm) {
  Victim victim("ledgd");
  WriteTextFile(kPidFile, std::to_string(victim.Pid()) + "\n");
  // Not reaped, the process stays until the time is over.
  EXPECT_EQ(Daemonise("ledgd").Kill(milliseconds(1)), 0);
  EXPECT_EQ(m_captured.Take(), "PID " + std::to_string(victim.Pid()) + " didn't exit from signal 15. Trying harder.\n");
  EXPECT_EQ(victim.Reap(), SIGTERM);
}

TEST_F(DaemoniseTest, StopsADaemonThatIgnoresSigterm) {
  Victim victim("ledgd", SIG_IGN);
  WriteTextFile(kPidFile, std::to_string(victim.Pid()) + "\n");
  EXPECT_EQ(Daemonise("ledgd").Kill(milliseconds(20)), 0);
  EXPECT_EQ(m_captured.Take(), "PID " + std::to_string(victim.Pid()) + " didn't exit from signal 15. Trying harder.\n");
  EXPECT_EQ(victim.Reap(), SIGKILL);
}

TEST_F(DaemoniseTest, ThrowsWhenNoneIsRunning) {
  ExpectErrno(ENOENT, "ReadPidFile:ledgd: No such file or directory (2)", [] { Daemonise("ledgd").Kill(kLong); });
  const Victim victim("other");
  WriteTextFile(kPidFile, std::to_string(victim.Pid()) + "\n");
  ExpectErrno(ENOENT, "ReadPidFile:other: No such file or directory (2)", [] { Daemonise("other").Kill(kLong); });
  ExpectErrno(ESRCH, "ReadPidFile:ledgd: No such process (3)", [] { Daemonise("ledgd").Kill(kLong); });
  EXPECT_EQ(m_captured.Take(), "PID file exists but ledgd not running\n");
}

TEST_F(DaemoniseTest, LeavesThePidFileWhenItGoes) {
  WriteTextFile(kPidFile, "1\n");
  { const Daemonise daemonise("ledgd"); }
  EXPECT_EQ(ReadTextFile(kPidFile), "1\n");
}
