// A process that a test finds and ends.
#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>

#include "tests/unit/platform/platform_test.h"

namespace test_platform {

/// A child process that waits to be ended. It does not outlive its parent.
class Victim : boost::noncopyable {
public:
  /// Returns when the child has `name` and its disposition of SIGTERM.
  explicit Victim(const std::string& name, void (*on_term)(int) = SIG_DFL) : m_pid(::fork()) {
    if (m_pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
      std::signal(SIGTERM, on_term);
      ::prctl(PR_SET_NAME, name.c_str(), 0, 0, 0);
      for (;;) {
        ::pause();
      }
    }
    EXPECT_TRUE(WaitUntil([&] { return ReadThreadName("/proc/" + std::to_string(m_pid)) == name; }));
  }

  ~Victim() {
    if (m_pid > 0) {
      ::kill(m_pid, SIGKILL);
      Reap();
    }
  }

  pid_t Pid() const { return m_pid; }

  /// Waits for the end of the process and returns the signal that ended it, or 0. Until then the process exists.
  int Reap() {
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    m_pid = 0;
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }

private:
  pid_t m_pid;
};

}  // namespace test_platform
