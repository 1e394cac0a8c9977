#include "lib/platform/daemonise.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/daemonise_fixture.h"
#include "tests/unit/platform/threads.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/private_mounts.h"
#include "tests/unit/support/temp_dir.h"

using bramble::Daemonise;
using test_platform::BeReady;
using test_platform::BoundLife;
using test_platform::DaemoniseTest;
using test_platform::kLong;
using test_platform::kPidFile;
using test_platform::Start;
using test_platform::WaitUntil;
using test_support::ReadTextFile;
using test_support::RunInChild;
using test_support::TempDir;
using test_support::WriteTextFile;

namespace {

std::string Disposition(int signal) {
  struct sigaction action;
  ::sigaction(signal, nullptr, &action);
  return action.sa_handler == SIG_DFL ? "default" : action.sa_handler == SIG_IGN ? "ignored" : "handler";
}

bool IsSameFile(int fd, const char* path) {
  struct stat opened;
  struct stat named;
  return ::fstat(fd, &opened) == 0 && ::stat(path, &named) == 0 && opened.st_dev == named.st_dev &&
         opened.st_ino == named.st_ino;
}

}  // namespace

TEST_F(DaemoniseTest, LetsTheStarterGoWhenTheDaemonIsReady) { EXPECT_EQ(Start(BeReady), "<signalled: 0>"); }

TEST_F(DaemoniseTest, KeepsTheStarterUntilTheDaemonIsReady) {
  EXPECT_EQ(Start([](Daemonise& daemonise, pid_t starter) -> std::string {
              // The starter writes the PID file and then has nothing to do but to wait, or to go.
              const std::string stat = "/proc/" + std::to_string(starter) + "/stat";
              const auto waits = [&stat] { return ReadTextFile(stat).find(") S ") != std::string::npos; };
              const bool waited = WaitUntil([&] {
                return ::getppid() != starter ||
                       (std::filesystem::exists(kPidFile) && !ReadTextFile(kPidFile).empty() && waits());
              });
              const bool there = ::getppid() == starter;
              daemonise.Signal();
              const bool gone = WaitUntil([starter] { return ::getppid() != starter; });
              return std::string(waited && there ? "waited" : "did not wait") + (gone ? ", went" : ", stayed");
            }),
            "waited, went");
}

TEST_F(DaemoniseTest, WritesThePidFile) {
  WriteTextFile(kPidFile, "99999999999999999999\n");
  const std::string pid = Start([](Daemonise& daemonise, pid_t) {
    daemonise.Signal();
    return std::to_string(::getpid());
  });
  EXPECT_EQ(ReadTextFile(kPidFile), pid + "\n");
}

TEST_F(DaemoniseTest, PassesOverAPidFileThatCannotBeWritten) {
  std::filesystem::create_directory(kPidFile);
  EXPECT_EQ(Start(BeReady), "<signalled: 0>");
}

TEST_F(DaemoniseTest, LeavesTheStarterWithoutDestructorsAndFlushing) {
  const TempDir dir;
  EXPECT_EQ(RunInChild([&]() -> std::string {
              BoundLife();
              struct Tells {
                ~Tells() { WriteTextFile(path, ::getpid() == owner ? "starter" : "daemon"); }
                std::string path;
                pid_t owner;
              };
              std::FILE* const file = std::fopen((dir / "buffered").c_str(), "we");
              std::fputs("never written", file);
              const Tells tells{dir / "destroyed", ::getpid()};
              Daemonise daemonise("ledgd");
              daemonise.Prepare(kLong);
              const pid_t starter = ::getppid();
              daemonise.Signal();
              WaitUntil([starter] { return ::getppid() != starter; });
              return std::filesystem::exists(dir / "destroyed") ? "destroyed" : "left";
            }),
            "left");
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
              check("session;", ::getsid(0) == ::getpid());
              check("process group;", ::getpgrp() == ::getpid());
              check("working directory;", std::filesystem::current_path() == "/");
              check("name;", test_platform::OwnThreadName() == "ledgd");
              check("umask;", ::umask(0) == 027);
              check("standard input;", IsSameFile(0, "/dev/null") && (::fcntl(0, F_GETFL) & O_ACCMODE) == O_RDONLY);
              check("standard output;", IsSameFile(1, "/dev/kmsg") && (::fcntl(1, F_GETFL) & O_ACCMODE) == O_WRONLY);
              check("standard error;", IsSameFile(2, "/dev/kmsg") && (::fcntl(2, F_GETFL) & O_ACCMODE) == O_WRONLY);
              check("other descriptor;", IsSameFile(other, dir.Path().c_str()));
              daemonise.Signal();
              return wrong;
            }),
            "");
  ::close(other);
  ::umask(mask);
}

TEST_F(DaemoniseTest, PrintsToTheKernelLogLineByLine) {
  test_support::ClearKernelLog();
  EXPECT_EQ(Start([](Daemonise& daemonise, pid_t) {
              std::fputs("one line\nhalf", stderr);
              daemonise.Signal();
              return test_support::KernelLog();
            }),
            "one line\n");
}

TEST_F(DaemoniseTest, SetsSignalDispositions) {
  const struct {
    int signal;
    const char* name;
    const char* expected;
  } rows[] = {
      {SIGCHLD, "SIGCHLD", "default"}, {SIGTSTP, "SIGTSTP", "ignored"}, {SIGTTOU, "SIGTTOU", "ignored"},
      {SIGTTIN, "SIGTTIN", "ignored"}, {SIGHUP, "SIGHUP", "ignored"},   {SIGTERM, "SIGTERM", "default"},
      {SIGUSR1, "SIGUSR1", "ignored"}, {SIGINT, "SIGINT", "handler"},   {SIGQUIT, "SIGQUIT", "handler"},
      {SIGUSR2, "SIGUSR2", "handler"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto before = std::signal(row.signal, [](int) {});
    EXPECT_EQ(Start([&row](Daemonise& daemonise, pid_t) {
                const std::string disposition = Disposition(row.signal);
                daemonise.Signal();
                return disposition;
              }),
              row.expected);
    std::signal(row.signal, before);
  }
}

TEST_F(DaemoniseTest, UnblocksTheSignalsOfTheHandshakeOnly) {
  sigset_t before;
  sigset_t blocked;
  ::sigemptyset(&blocked);
  for (const int signal : {SIGCHLD, SIGUSR1, SIGUSR2}) {
    ::sigaddset(&blocked, signal);
  }
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  EXPECT_EQ(Start([](Daemonise& daemonise, pid_t) {
              sigset_t now;
              ::pthread_sigmask(SIG_SETMASK, nullptr, &now);
              daemonise.Signal();
              std::string names;
              for (const int signal : {SIGCHLD, SIGUSR1, SIGUSR2, SIGTERM, SIGHUP}) {
                names += ::sigismember(&now, signal) == 1 ? std::to_string(signal) + ";" : "";
              }
              return names;
            }),
            std::to_string(SIGUSR2) + ";");
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(DaemoniseTest, HearsADaemonThatIsReadyBeforeTheStarterWaits) {
  // Until somebody reads, the starter hangs in opening its PID file.
  ASSERT_EQ(::mkfifo(kPidFile, 0600), 0);
  EXPECT_EQ(Start([](Daemonise& daemonise, pid_t) {
              daemonise.Signal();
              return ReadTextFile(kPidFile) == std::to_string(::getpid()) + "\n" ? "ready first" : "wrong PID file";
            }),
            "ready first");
}

TEST_F(DaemoniseTest, PrefersTheReportOfADaemonThatDiesAfterIt) {
  ASSERT_EQ(::mkfifo(kPidFile, 0600), 0);
  EXPECT_EQ(Start([](Daemonise& daemonise, pid_t) -> std::string {
              const pid_t daemon = ::getpid();
              daemonise.Signal();
              if (::fork() != 0) {
                ::_exit(3);
              }
              BoundLife();
              WaitUntil([daemon] { return ::getppid() != daemon; });
              ReadTextFile(kPidFile);
              return "reported and died";
            }),
            "reported and died");
}
