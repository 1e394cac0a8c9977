// Daemons that become ready, and how they are signalled and stopped.
#include "lib/platform/daemonise.h"

#include <cstring>

#include "tests/unit/platform/daemonise_fixture.h"
#include "tests/unit/platform/victim.h"
#include "tests/unit/platform/wrapped_process_calls.h"

using namespace test_platform;

TEST_F(DaemoniseTest, KeepsTheStarterUntilTheDaemonIsReady) {
  EXPECT_EQ(Start([](Daemonise& daemonise, pid_t starter) -> std::string {
              // After it has written the PID file, the starter can only wait or end.
              const std::string stat = "/proc/" + std::to_string(starter) + "/stat";
              const bool waited = WaitUntil([&] {
                return ::getppid() != starter ||
                       (std::filesystem::exists(kPidFile) && !ReadTextFile(kPidFile).empty() &&
                        ReadTextFile(stat).find(") S ") != std::string::npos);
              });
              const bool exists = ::getppid() == starter;
              daemonise.Signal();
              return std::string(waited && exists ? "waited" : "did not wait") +
                     (WaitUntilOrphaned(starter) ? ", ended" : ", stayed");
            }),
            "waited, ended");
}

TEST_F(DaemoniseTest, EndsTheStarterWithoutDestructorsAndFlushing) {
  const TempDir dir;
  EXPECT_EQ(RunInChild([&]() -> std::string {
              BoundLife();
              struct Recorder {
                ~Recorder() { WriteTextFile(path, ::getpid() == owner ? "starter" : "daemon"); }
                std::string path;
                pid_t owner;
              };
              std::fputs("never written", std::fopen((dir / "buffered").c_str(), "we"));
              const Recorder recorder{dir / "destroyed", ::getpid()};
              Daemonise daemonise("ledgd");
              daemonise.Prepare(kLong);
              daemonise.Signal();
              WaitUntilOrphaned(recorder.owner);
              return std::filesystem::exists(dir / "destroyed") ? "destroyed" : "not destroyed";
            }),
            "not destroyed");
  EXPECT_EQ(ReadTextFile(dir / "destroyed"), "daemon");
  EXPECT_EQ(ReadTextFile(dir / "buffered"), "");
}

TEST_F(DaemoniseTest, DetachesTheDaemon) {
  const TempDir dir;
  const mode_t mask = ::umask(027);
  const int other = ::open(dir.Path().c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(Start([&](Daemonise& daemonise, pid_t) {
              std::string wrong;
              const auto check = [&wrong](const char* what, bool right) { wrong += right ? "" : what; };
              const auto is = [](int fd, const std::string& path, int mode) {
                struct stat opened;
                struct stat named;
                return ::fstat(fd, &opened) == 0 && ::stat(path.c_str(), &named) == 0 &&
                       opened.st_dev == named.st_dev && opened.st_ino == named.st_ino &&
                       (::fcntl(fd, F_GETFL) & O_ACCMODE) == mode;
              };
              check("session;", ::getsid(0) == ::getpid());
              check("process group;", ::getpgrp() == ::getpid());
              check("working directory;", std::filesystem::current_path() == "/");
              check("name;", OwnThreadName() == "ledgd");
              check("umask;", ::umask(0) == 027);
              check("standard input;", is(0, "/dev/null", O_RDONLY));
              check("standard output;", is(1, "/dev/kmsg", O_WRONLY));
              check("standard error;", is(2, "/dev/kmsg", O_WRONLY));
              check("other descriptor;", is(other, dir.Path(), O_RDONLY));
              daemonise.Signal();
              return wrong;
            }),
            "");
  ::close(other);
  ::umask(mask);
}

TEST_F(DaemoniseTest, SetsSignalDispositionsAndUnblocksTheSignalsOfTheHandshakeOnly) {
  const int signals[] = {SIGCHLD, SIGTSTP, SIGTTOU, SIGTTIN, SIGHUP, SIGTERM, SIGUSR1, SIGINT, SIGQUIT, SIGUSR2};
  EXPECT_EQ(RunInChild([&] {
              sigset_t blocked;
              ::sigemptyset(&blocked);
              for (const int signal : signals) {
                std::signal(signal, [](int) {});
              }
              for (const int signal : {SIGCHLD, SIGUSR1, SIGUSR2}) {
                ::sigaddset(&blocked, signal);
              }
              ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
              return Start([&](Daemonise& daemonise, pid_t) {
                sigset_t mask;
                ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
                std::string seen;
                for (const int signal : signals) {
                  const auto handler = std::signal(signal, SIG_DFL);
                  seen += ::strsignal(signal) + std::string(handler == SIG_DFL   ? ": default"
                                                            : handler == SIG_IGN ? ": ignored"
                                                                                 : ": handler");
                  seen += ::sigismember(&mask, signal) == 1 ? ", blocked\n" : "\n";
                }
                daemonise.Signal();
                return seen;
              });
            }),
            "Child exited: default\nStopped: ignored\nStopped (tty output): ignored\nStopped (tty input): ignored\n"
            "Hangup: ignored\nTerminated: default\nUser defined signal 1: ignored\nInterrupt: handler\n"
            "Quit: handler\nUser defined signal 2: handler, blocked\n");
}

TEST_F(DaemoniseTest, SignalsTheParentIfPrepareWasNotCalled) {
  const FakeProcess parent(1);
  EXPECT_EQ(Daemonise("ledgd").Signal(), 0);
  EXPECT_EQ(Daemonise("ledgd").Signal(), -1) << "it returns the result of kill()";
  const std::string call = "kill " + std::to_string(::getppid()) + " 10";
  EXPECT_THAT(parent.Calls(), testing::ElementsAre(call, call));
}

TEST_F(DaemoniseTest, SignalsNobodyIfTheStarterHasEnded) {
  EXPECT_THAT(Start(
                  [](Daemonise& daemonise, pid_t starter) {
                    WaitUntilOrphaned(starter);
                    const FakeProcess adopter(1);
                    const int result = daemonise.Signal();
                    const int error_number = errno;
                    return "<" + std::to_string(result) + ", error " + std::to_string(error_number) + ", " +
                           std::to_string(adopter.Calls().size()) + " signals>";
                  },
                  milliseconds(20)),
              testing::HasSubstr("<-1, error 3, 0 signals>"));
  EXPECT_EQ(m_captured.Take(), "ledgd: Child failed to get going\n");
}

TEST_F(DaemoniseTest, KillsTheDaemonThatThePidFileNamesAndLeavesTheFile) {
  Victim victim("ledgd");
  const std::string pid = std::to_string(victim.Pid());
  WriteTextFile(kPidFile, pid + "\n");
  // The process has not been reaped, so it exists until the timeout.
  EXPECT_EQ(Daemonise("ledgd").Kill(milliseconds(1)), 0);
  EXPECT_EQ(m_captured.Take(), "PID " + pid + " didn't exit from signal 15. Trying harder.\n");
  EXPECT_EQ(victim.Reap(), SIGTERM);
  EXPECT_EQ(ReadTextFile(kPidFile), pid + "\n");
}

TEST_F(DaemoniseTest, ThrowsIfNoDaemonOfItsNameIsRunning) {
  ExpectErrno(ENOENT, "ReadPidFile:ledgd: No such file or directory (2)", [] { Daemonise("ledgd").Kill(kLong); });
  const Victim victim("other");
  WriteTextFile(kPidFile, std::to_string(victim.Pid()) + "\n");
  ExpectErrno(ENOENT, "ReadPidFile:other: No such file or directory (2)", [] { Daemonise("other").Kill(kLong); });
  ExpectErrno(ESRCH, "ReadPidFile:ledgd: No such process (3)", [] { Daemonise("ledgd").Kill(kLong); });
  EXPECT_EQ(m_captured.Take(), "PID file exists but ledgd not running\n");
}
