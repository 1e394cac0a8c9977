// The file that contains the process ID of the running daemon, and how to end a process.
#pragma once

#include <sys/types.h>

#include <boost/date_time/posix_time/posix_time_duration.hpp>
#include <string>

namespace bramble {

/// Writes `pid` as a decimal number and a newline. The file gets mode 0644, whatever the umask and the mode of an older
/// file. A file that is not a regular file keeps its mode. An existing file is truncated first, so a reader may see it
/// empty. Symbolic links are followed. All errors are silently ignored.
void WritePidFile(const std::string& path, pid_t pid);

/// Returns the process ID in the file if the process with that ID has the name `name`. (After a process has ended, the
/// kernel may give its ID to another program.) Otherwise throws ErrnoException with the context "ReadPidFile:<name>":
/// ENOENT if the file cannot be opened, whatever the cause; ESRCH if the file does not name a running instance. In some
/// cases a line on standard error says more.
pid_t ReadPidFile(const std::string& path, const std::string& name);

/// Sends `signal` and checks every 10 ms, for at most `timeout`, whether the process still exists. A process that has
/// not been reaped still exists. If it exists after `timeout`, sends SIGKILL and does not wait again. A negative
/// `timeout` counts as zero: SIGKILL is sent at once. Returns -1 if the process ended without SIGKILL, otherwise the
/// result of the kill() that sent it. Throws ErrnoException with the context "KillProcessAndWait" if the first signal
/// cannot be sent.
int KillProcessAndWait(pid_t pid, int signal, const boost::posix_time::time_duration& timeout);

}  // namespace bramble
