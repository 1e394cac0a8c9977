// Commands of the user, run by /bin/sh.
#pragma once

#include <string>

namespace ledgerctl {

/// Runs the command in a process group of its own, with the open file `input` as its standard input, and waits until
/// its shell has ended. Returns the status in the form of waitpid. If SIGHUP, SIGINT, SIGQUIT or SIGTERM ends this
/// program, the signal also ends the process group. Throws Failure (Local) if the shell cannot be started. Not
/// thread-safe.
int RunShellCommand(const std::string& command, int input);

/// Runs the command in the foreground, with `argument` as its "$1", and waits until its shell has ended. Returns the
/// status in the form of waitpid. This program ignores Ctrl-C and Ctrl-\ meanwhile; the command gets them. Throws
/// Failure (Local) if the shell cannot be started. Not thread-safe.
int RunInForeground(const std::string& command, const std::string& argument);

}  // namespace ledgerctl
