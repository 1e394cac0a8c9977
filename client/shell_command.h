// Commands of the user, run by /bin/sh.
#pragma once

#include <string>

namespace ledgerctl {

/// Runs the command in a process group of its own, with the open file `input` as its standard input, and waits until
/// its shell has ended. Returns the status as waitpid gives it. SIGHUP, SIGINT, SIGQUIT or SIGTERM for this program
/// ends the process group as well. Throws Failure (Local) if the shell cannot be started. One thread.
int RunShellCommand(const std::string& command, int input);

/// Runs the command in the foreground, with `argument` as its "$1", and waits until its shell has ended. Returns the
/// status as waitpid gives it. Ctrl-C and Ctrl-\ reach the command only. Throws Failure (Local) if the shell cannot be
/// started. One thread.
int RunInForeground(const std::string& command, const std::string& argument);

}  // namespace ledgerctl
