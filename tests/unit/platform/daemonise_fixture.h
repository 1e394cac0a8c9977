// Starting daemons in tests, each by a process of its own.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include "lib/platform/daemonise.h"
#include "lib/platform/errno_exception.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/support/bound_over.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/temp_dir.h"

namespace test_platform {

constexpr char kPidFile[] = "/var/run/ledgd.pid";

/// Far longer than any start takes.
const boost::posix_time::time_duration kLong = boost::posix_time::seconds(20);

/// What a daemon does between its detachment and its end. What it returns goes to the test.
using Daemon = std::function<std::string(bramble::Daemonise&, pid_t starter)>;

/// Ends the process if it hangs. Not inherited.
inline void BoundLife() { ::alarm(40); }

inline std::string DescribeException(const std::exception& e) {
  const auto* const system_call = dynamic_cast<const bramble::ErrnoException*>(&e);
  const std::string kind = system_call != nullptr                    ? "system call"
                           : typeid(e) == typeid(std::runtime_error) ? "runtime error"
                                                                     : "exception";
  return "[" + kind + ": " + e.what() + "]";
}

inline std::string DescribeEndedChild() {
  int status = 0;
  if (::waitpid(-1, &status, WNOHANG) <= 0) {
    return "";
  }
  return WIFEXITED(status) ? "[child exited with " + std::to_string(WEXITSTATUS(status)) + "]"
                           : "[child killed by signal " + std::to_string(WTERMSIG(status)) + "]";
}

/// Lets a process of its own start the daemon. Returns what the daemon returned, then, if Prepare threw in the starter,
/// what it threw and how the daemon had ended by then. "exited with" or "killed by" tell of a starter that failed.
inline std::string Start(const Daemon& daemon, const boost::posix_time::time_duration& timeout = kLong) {
  return test_support::RunInChild([&]() -> std::string {
    BoundLife();
    bramble::Daemonise daemonise("ledgd");
    const pid_t starter = ::getpid();
    try {
      daemonise.Prepare(timeout);
    } catch (const std::exception& e) {
      return ::getpid() == starter ? DescribeException(e) + DescribeEndedChild()
                                   : "in the child " + DescribeException(e);
    }
    BoundLife();
    return daemon(daemonise, starter);
  });
}

/// A daemon that never gets ready, and outlives its starter.
inline std::string StaySilent(bramble::Daemonise&, pid_t starter) {
  return WaitUntil([starter] { return ::getppid() != starter; }) ? "<still running>" : "<its starter stays>";
}

inline std::string BeReady(bramble::Daemonise& daemonise, pid_t) {
  return "<signalled: " + std::to_string(daemonise.Signal()) + ">";
}

/// /var/run is the test's own, in this program's private mounts.
class DaemoniseTest : public testing::Test {
protected:
  test_support::TempDir m_run;
  test_support::BoundOver m_mount{m_run.Path(), "/var/run"};
  test_support::CapturedStderr m_captured;
};

}  // namespace test_platform
