// A process to be found and ended by a test.
#pragma once

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

namespace test_platform {

/// A child process that waits to be ended. It does not outlive its parent.
class Victim {
public:
  /// Returns when the child carries `name` and has set its disposition of SIGTERM. Throws std::runtime_error.
  explicit Victim(const char* name, void (*on_term)(int) = SIG_DFL) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0 || (m_pid = ::fork()) < 0) {
      throw std::runtime_error("no victim");
    }
    if (m_pid == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
      ::prctl(PR_SET_NAME, name, 0, 0, 0);
      std::signal(SIGTERM, on_term);
      const bool told = ::write(ends[1], "x", 1) == 1;
      while (told) {
        ::pause();
      }
      ::_exit(1);
    }
    ::close(ends[1]);
    char byte;
    const bool ready = ::read(ends[0], &byte, 1) == 1;
    ::close(ends[0]);
    if (!ready) {
      throw std::runtime_error("the victim died early");
    }
  }

  ~Victim() {
    if (m_pid > 0) {
      ::kill(m_pid, SIGKILL);
      ::waitpid(m_pid, nullptr, 0);
    }
  }

  Victim(const Victim&) = delete;
  Victim& operator=(const Victim&) = delete;

  pid_t Pid() const { return m_pid; }

  /// Waits for the end and returns the signal that brought it, 0 if none did. Only then is the process gone.
  int Reap() {
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    m_pid = 0;
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }

private:
  pid_t m_pid = 0;
};

}  // namespace test_platform
