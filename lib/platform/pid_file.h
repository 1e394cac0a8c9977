// The file that tells the process ID of the running daemon, and the end of a process.
#pragma once

#include <sys/types.h>

#include <boost/date_time/posix_time/posix_time_duration.hpp>
#include <string>

namespace bramble {

/// Writes `pid` as a decimal number and a newline. The file has mode 0644, whatever the umask and the mode of an older
/// file; what is not a regular file keeps its mode. An existing file is truncated first, so a reader may see it empty.
/// A symbolic link is followed. Every failure is ignored in silence.
void WritePidFile(const std::string& path, pid_t pid);

/// Returns the process ID that the file names, if that process carries `name`: the number of a process that has ended
/// may belong to another program by now. Otherwise prints a line on standard error where there is something to tell,
/// and throws ErrnoException with the context "ReadPidFile:<name>": ENOENT if the file cannot be opened, whatever the
/// cause, ESRCH if it names no running instance.
pid_t ReadPidFile(const std::string& path, const std::string& name);

/// Sends `signal` and polls, every 10 ms for at most `timeout`, until the process is gone; a process still there is
/// then sent SIGKILL, without another wait. A negative `timeout` counts as zero: SIGKILL follows at once. Returns -1 if
/// the process went by itself, else the result of that kill. Throws ErrnoException with the context
/// "KillProcessAndWait" if the first signal cannot be sent. A process that is not reaped counts as still there.
int KillProcessAndWait(pid_t pid, int signal, const boost::posix_time::time_duration& timeout);

}  // namespace bramble
