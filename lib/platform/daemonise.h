// Turns the process into a daemon whose starter waits until it is ready, and stops a running one.
#pragma once

#include <sys/types.h>

#include <boost/date_time/posix_time/posix_time_duration.hpp>
#include <string>

namespace bramble {

/// The process entry owns one; the daemon has a copy of its own after the fork. The PID file "/var/run/<name>.pid" is
/// written by Prepare and never removed.
class Daemonise {
public:
  /// `name` is the daemon's process name, also used in messages.
  explicit Daemonise(const std::string& name) : m_name(name), m_pid_file("/var/run/" + name + ".pid") {}

  /// Forks. Returns in the child only, which is then detached: its own session, working directory "/", standard input
  /// on /dev/null, standard output and error on the kernel log. The child reports with Signal when it is ready.
  ///
  /// The parent waits for that, at most `timeout`, and then leaves the process with status 0, without destructors.
  /// Every SIGUSR1 during the wait means ready, whoever sent it. SIGUSR1 and SIGCHLD that were pending before the fork
  /// are discarded, and SIGCHLD gets its default disposition. The end of another child of the parent means nothing
  /// and does not extend the wait. If the child ends first or stays silent, a line goes to standard error and
  /// std::runtime_error is thrown (ErrnoException if the wait fails, which it also does when the parent is stopped and
  /// continued); a silent child is left running, deliberately: it may still get ready. SIGUSR1 and SIGCHLD stay
  /// blocked after a failure in the parent.
  ///
  /// Must be called before any thread exists. Throws std::runtime_error if the fork fails; ErrnoException, in the
  /// child, if it cannot be named. A child that cannot get a session or the working directory exits with status 1. A
  /// signal mask that cannot be changed or a clock that cannot be read is an assertion failure.
  void Prepare(const boost::posix_time::time_duration& timeout);

  /// Reports to the process that called Prepare that the daemon is ready, and returns the result of kill(). If that
  /// process is no longer the parent, nobody waits: nothing is sent, the result is -1 and errno is ESRCH. An object
  /// without a call of Prepare signals the parent process, whatever it is.
  int Signal();

  /// Sends SIGTERM to the running daemon that the PID file names and waits until it is gone, at most `timeout`, then
  /// sends SIGKILL. Throws ErrnoException if none is running (see ReadPidFile) or it cannot be signalled.
  int Kill(const boost::posix_time::time_duration& timeout);

private:
  void WaitForChild(pid_t child, const boost::posix_time::time_duration& timeout);
  void BecomeDaemon();

  const std::string m_name;
  const std::string m_pid_file;
  pid_t m_starter = 0;  // 0 before Prepare
};

}  // namespace bramble
