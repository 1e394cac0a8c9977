#include "lib/platform/daemonise.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "lib/platform/assertion.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/monotonic_time.h"
#include "lib/platform/pid_file.h"
#include "lib/platform/safe_print.h"
#include "lib/platform/standard_streams.h"
#include "lib/platform/string_operations.h"

namespace bramble {
namespace {

// The signals of the handshake: the child is ready, or it has ended.
sigset_t HandshakeSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGCHLD);
  ::sigaddset(&signals, SIGUSR1);
  return signals;
}

void ChangeSignalMask(int how) {
  const sigset_t signals = HandshakeSignals();
  // The call returns its error number, but "%m" uses errno.
  errno = ::pthread_sigmask(how, &signals, nullptr);
  if (errno != 0) {
    SafePrint(stderr, "%s", __extension__ strprintf("pthread_sigmask failed: %m\n"));
    BRAMBLE_ASSERT(false);
  }
}

timespec ToTimespec(const boost::posix_time::time_duration& duration) {
  return {static_cast<time_t>(duration.total_seconds()),
          static_cast<long>(duration.total_microseconds() % 1000000 * 1000)};
}

// An ignored SIGCHLD and pending signals are inherited across exec. The kernel does not report the end of a child while
// SIGCHLD is ignored, and an old signal says nothing about the child that is about to be started.
void ForgetInheritedSignals() {
  ::signal(SIGCHLD, SIG_DFL);
  const sigset_t signals = HandshakeSignals();
  const timespec no_wait{0, 0};
  while (::sigtimedwait(&signals, nullptr, &no_wait) > 0) {
  }
}

// Does not reap the child: it stays a zombie until this process ends.
bool HasEnded(pid_t child) {
  siginfo_t info{};
  return ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == child;
}

// Returns what sigtimedwait returns. Ignores SIGCHLD until `child` has ended: the signal is also sent for other
// children, and for a child that is stopped or continued.
int AwaitReport(pid_t child, const boost::posix_time::time_duration& timeout) {
  const sigset_t signals = HandshakeSignals();
  const timespec deadline =
      AddMicroseconds(get_monotonic_time(), static_cast<std::uint64_t>(timeout.total_microseconds()));
  timespec limit = ToTimespec(timeout);
  for (;;) {
    const int signal = ::sigtimedwait(&signals, nullptr, &limit);
    if (signal != SIGCHLD || HasEnded(child)) {
      return signal;
    }
    const timespec now = get_monotonic_time();
    if (!IsBefore(now, deadline)) {
      errno = EAGAIN;
      return -1;
    }
    limit = TimeBetween(now, deadline);
  }
}

void SetDispositions() {
  ::signal(SIGCHLD, SIG_DFL);
  ::signal(SIGTSTP, SIG_IGN);
  ::signal(SIGTTOU, SIG_IGN);
  ::signal(SIGTTIN, SIG_IGN);
  ::signal(SIGHUP, SIG_IGN);
  ::signal(SIGTERM, SIG_DFL);
  ::signal(SIGUSR1, SIG_IGN);
}

}  // namespace

void Daemonise::Prepare(const boost::posix_time::time_duration& timeout) {
  // Blocked before the fork, so that a signal that is sent before the wait stays pending.
  ChangeSignalMask(SIG_BLOCK);
  ForgetInheritedSignals();
  m_starter = ::getpid();
  const pid_t child = ::fork();
  if (child < 0) {
    throw std::runtime_error(__extension__ strprintf("failed to fork: %m"));
  }
  if (child > 0) {
    WritePidFile(m_pid_file, child);
    WaitForChild(child, timeout);
    ::_exit(0);
  }
  BecomeDaemon();
}

// Returns when the child is ready, otherwise throws.
void Daemonise::WaitForChild(pid_t child, const boost::posix_time::time_duration& timeout) {
  const int signal = AwaitReport(child, timeout);
  const int error_number = errno;
  if (signal == SIGUSR1) {
    return;
  }
  if (signal == SIGCHLD) {
    SafePrint(stderr, "%s: Child died early\n", m_name);
    throw std::runtime_error(strprintf("%s: Child died early", m_name.c_str()));
  }
  BRAMBLE_ASSERT(signal < 0);
  if (error_number == EAGAIN) {
    SafePrint(stderr, "%s: Child failed to get going\n", m_name);
    throw std::runtime_error(strprintf("%s: Child failed to report", m_name.c_str()));
  }
  SafePrint(stderr, "%s: sigtimedwait failed: %d\n", m_name, error_number);
  throw ErrnoException(error_number, "sigtimedwait");
}

void Daemonise::BecomeDaemon() {
  if (::prctl(PR_SET_NAME, m_name.c_str()) != 0) {
    throw ErrnoException(errno, "prctl");
  }
  ChangeSignalMask(SIG_UNBLOCK);
  SetDispositions();
  if (::setsid() < 0) {
    SafePrint(stderr, "%s: Unable to create new session\n", m_name);
    std::exit(1);
  }
  if (::chdir("/") != 0) {
    SafePrint(stderr, "%s: Unable to change to root\n", m_name);
    std::exit(1);
  }
  DetachStandardStreams();
}

int Daemonise::Signal() {
  const pid_t parent = ::getppid();
  // An ancestor of the starter adopts an orphan. Its process ID therefore differs from the starter's.
  if (m_starter != 0 && parent != m_starter) {
    errno = ESRCH;
    return -1;
  }
  return ::kill(parent, SIGUSR1);
}

int Daemonise::Kill(const boost::posix_time::time_duration& timeout) {
  return KillProcessAndWait(ReadPidFile(m_pid_file, m_name), SIGTERM, timeout);
}

}  // namespace bramble
