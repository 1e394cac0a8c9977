// Starting daemons in tests, each by a process of its own.
#pragma once

#include <sys/wait.h>

#include <typeinfo>

#include "lib/platform/daemonise.h"
#include "tests/unit/platform/platform_test.h"
#include "tests/unit/support/bound_over.h"

namespace test_platform {

using namespace boost::posix_time;

constexpr char kPidFile[] = "/var/run/ledgd.pid";

/// Far longer than any start takes.
const time_duration kLong = seconds(20);

/// What a daemon does after its detachment. The test gets the result.
using Daemon = std::function<std::string(Daemonise&, pid_t starter)>;

/// Ends the process if it hangs. A child does not inherit this.
inline void BoundLife() { ::alarm(40); }

/// Returns the kind and the text of the exception, and how the only child has ended, if it has.
inline std::string Describe(const std::exception& e) {
  const std::string kind = dynamic_cast<const ErrnoException*>(&e) != nullptr ? "system call"
                           : typeid(e) == typeid(std::runtime_error)          ? "runtime error"
                                                                              : "exception";
  int status = 0;
  std::string end;
  if (::waitpid(-1, &status, WNOHANG) > 0) {
    end = WIFEXITED(status) ? "[child exited with " + std::to_string(WEXITSTATUS(status)) + "]"
                            : "[child killed by signal " + std::to_string(WTERMSIG(status)) + "]";
  }
  return "[" + kind + ": " + e.what() + "]" + end;
}

/// Starts the daemon from a process of its own. Returns the result of the daemon. If Prepare throws in the starter, its
/// exception follows, and how the daemon has ended by then. "exited with" or "killed by" mean a starter that failed.
inline std::string Start(const Daemon& daemon, const time_duration& timeout = kLong, const char* name = "ledgd") {
  return RunInChild([&]() -> std::string {
    BoundLife();
    Daemonise daemonise(name);
    const pid_t starter = ::getpid();
    try {
      daemonise.Prepare(timeout);
    } catch (const std::exception& e) {
      return (::getpid() == starter ? "" : "in the child ") + Describe(e);
    }
    BoundLife();
    return daemon(daemonise, starter);
  });
}

inline bool WaitUntilOrphaned(pid_t parent) {
  return WaitUntil([parent] { return ::getppid() != parent; });
}

/// A daemon that does not become ready before its starter has ended.
inline std::string StaySilent(Daemonise&, pid_t starter) {
  return WaitUntilOrphaned(starter) ? "<still running>" : "<its starter stays>";
}

inline std::string BeReady(Daemonise& daemonise, pid_t) {
  return "<signalled: " + std::to_string(daemonise.Signal()) + ">";
}

/// Each test has its own /var/run, in the private mounts of this program.
class DaemoniseTest : public testing::Test {
protected:
  TempDir m_run;
  BoundOver m_mount{m_run.Path(), "/var/run"};
  CapturedStderr m_captured;
};

}  // namespace test_platform
