#include "client/shell_command.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <vector>

#include "client/ending_signals.h"
#include "client/failure.h"

namespace ledgerctl {
namespace {

// The running command's process group; 0 if there is none.
volatile pid_t g_group = 0;

void PassOn(int signal) {
  if (g_group != 0) {
    ::kill(-g_group, signal);
    // A stopped process ends only after it is continued.
    ::kill(-g_group, SIGCONT);
  }
}

class SpawnAttributes {
public:
  SpawnAttributes() {
    ::posix_spawnattr_init(&m_attributes);
    ::posix_spawn_file_actions_init(&m_actions);
  }
  ~SpawnAttributes() {
    ::posix_spawn_file_actions_destroy(&m_actions);
    ::posix_spawnattr_destroy(&m_attributes);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  /// The child gets a process group, a signal mask and a standard input of its own.
  void SetGroup(const sigset_t& mask, int input) {
    ::posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
    ::posix_spawnattr_setsigmask(&m_attributes, &mask);
    ::posix_spawn_file_actions_adddup2(&m_actions, input, STDIN_FILENO);
  }

  /// The signals of the terminal have their default actions in the child.
  void SetDefaultTerminalSignals() {
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGQUIT);
    ::posix_spawnattr_setsigdefault(&m_attributes, &defaults);
    ::posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGDEF);
  }

  const posix_spawnattr_t* Attributes() const { return &m_attributes; }
  const posix_spawn_file_actions_t* Actions() const { return &m_actions; }

private:
  posix_spawnattr_t m_attributes{};
  posix_spawn_file_actions_t m_actions{};
};

// `words` are the arguments of the shell, with its name.
pid_t StartShell(std::vector<std::string> words, const SpawnAttributes& how) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  pid_t child = 0;
  if (const int error = ::posix_spawn(&child, "/bin/sh", how.Actions(), how.Attributes(), arguments.data(), environ)) {
    throw LocalFailure("/bin/sh", error);
  }
  return child;
}

// Not interrupted: the program's handlers end the program.
int WaitFor(pid_t child) {
  int status = 0;
  if (::waitpid(child, &status, 0) < 0) {
    throw LocalFailure("waitpid", errno);
  }
  return status;
}

// The terminal sends its signals to the command and to this program alike.
class IgnoreTerminalSignals {
public:
  IgnoreTerminalSignals() : m_interrupt(::signal(SIGINT, SIG_IGN)), m_quit(::signal(SIGQUIT, SIG_IGN)) {}
  ~IgnoreTerminalSignals() {
    ::signal(SIGINT, m_interrupt);
    ::signal(SIGQUIT, m_quit);
  }
  IgnoreTerminalSignals(const IgnoreTerminalSignals&) = delete;
  IgnoreTerminalSignals& operator=(const IgnoreTerminalSignals&) = delete;

private:
  sighandler_t m_interrupt;
  sighandler_t m_quit;
};

}  // namespace

int RunShellCommand(const std::string& command, int input) {
  CatchEndingSignals(PassOn);
  // If it is ignored, the kernel keeps no status to wait for.
  ::signal(SIGCHLD, SIG_DFL);
  {
    const BlockedSignals blocked;
    SpawnAttributes how;
    how.SetGroup(blocked.Before(), input);
    g_group = StartShell({"sh", "-c", command}, how);
  }
  const pid_t child = g_group;
  siginfo_t info{};
  // Another process can get the group's number as soon as the child is reaped, so the group is forgotten before.
  const bool has_ended = ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) == 0;
  g_group = 0;
  if (!has_ended) {
    throw LocalFailure("waitid", errno);
  }
  return WaitFor(child);
}

int RunInForeground(const std::string& command, const std::string& argument) {
  const IgnoreTerminalSignals ignore;
  SpawnAttributes how;
  how.SetDefaultTerminalSignals();
  return WaitFor(StartShell({"sh", "-c", command, "sh", argument}, how));
}

}  // namespace ledgerctl
