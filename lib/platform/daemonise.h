// Turns the process into a daemon. The process that started it waits until the daemon is ready. Also stops a running
// daemon.
#pragma once

#include <sys/types.h>

#include <boost/date_time/posix_time/posix_time_duration.hpp>
#include <string>

namespace bramble {

/// main() owns the only instance; after the fork the daemon has its own copy. Prepare writes the PID file
/// "/var/run/<name>.pid" and ignores a failure to do so. Nothing removes the file.
class Daemonise {
public:
  /// `name` is the process name of the daemon. Messages use it too.
  explicit Daemonise(const std::string& name) : m_name(name), m_pid_file("/var/run/" + name + ".pid") {}

  /// Forks. Returns only in the child, which is then detached: it has its own session and the working directory "/",
  /// its standard input is /dev/null, its standard output and error are the kernel log. The child calls Signal when it
  /// is ready.
  ///
  /// The parent waits for that signal, at most `timeout`, and then calls _exit(0): destructors do not run. Every
  /// SIGUSR1 during the wait means ready, whoever sent it. SIGUSR1 and SIGCHLD that were pending before the fork are
  /// discarded, and SIGCHLD gets its default disposition. The end of another child of the parent is ignored and does
  /// not extend the wait. If the child ends first or is not ready in time, the parent prints a line on standard error
  /// and throws std::runtime_error. It throws ErrnoException if the wait fails; this also happens when the parent is
  /// stopped and continued. A child that is not ready in time is deliberately left running: it may become ready later.
  /// SIGUSR1 and SIGCHLD stay blocked in the parent after a failure.
  ///
  /// Must be called before any thread is created. Throws std::runtime_error if fork() fails. In the child, throws
  /// ErrnoException if the process name cannot be set. The child exits with status 1 if it cannot create a session or
  /// change the working directory. It is an assertion failure if the signal mask cannot be changed or the clock cannot
  /// be read.
  void Prepare(const boost::posix_time::time_duration& timeout);

  /// Reports to the process that called Prepare that the daemon is ready. Returns the result of kill(). If that process
  /// is no longer the parent, nobody waits: sends nothing, returns -1 and sets errno to ESRCH. If Prepare was not
  /// called, signals the parent process, whatever it is.
  int Signal();

  /// Sends SIGTERM to the daemon that the PID file names and waits until it has ended, at most `timeout`. Then sends
  /// SIGKILL and does not wait again. Returns what KillProcessAndWait returns. Throws ErrnoException if no daemon is
  /// running (see ReadPidFile) or if the signal cannot be sent.
  int Kill(const boost::posix_time::time_duration& timeout);

private:
  void WaitForChild(pid_t child, const boost::posix_time::time_duration& timeout);
  void BecomeDaemon();

  const std::string m_name;
  const std::string m_pid_file;
  pid_t m_starter = 0;  // 0 before Prepare
};

}  // namespace bramble
