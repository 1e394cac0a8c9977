#include "client/shell_command.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "client/ending_signals.h"
#include "client/failure.h"

namespace ledgerctl {
namespace {

// The running command's process group; 0 if there is none.
volatile pid_t g_group = 0;

void PassOn(int signal) {
  if (g_group != 0) {
    ::kill(-g_group, signal);
    // One that is stopped would end only when it goes on.
    ::kill(-g_group, SIGCONT);
  }
}

class SpawnAttributes {
public:
  SpawnAttributes(const sigset_t& mask, int input) {
    ::posix_spawnattr_init(&m_attributes);
    ::posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK);
    ::posix_spawnattr_setsigmask(&m_attributes, &mask);
    ::posix_spawn_file_actions_init(&m_actions);
    ::posix_spawn_file_actions_adddup2(&m_actions, input, STDIN_FILENO);
  }
  ~SpawnAttributes() {
    ::posix_spawn_file_actions_destroy(&m_actions);
    ::posix_spawnattr_destroy(&m_attributes);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  const posix_spawnattr_t* Attributes() const { return &m_attributes; }
  const posix_spawn_file_actions_t* Actions() const { return &m_actions; }

private:
  posix_spawnattr_t m_attributes{};
  posix_spawn_file_actions_t m_actions{};
};

void Start(const std::string& command, int input) {
  const BlockedSignals blocked;
  const SpawnAttributes how(blocked.Before(), input);
  std::string shell = "sh";
  std::string option = "-c";
  std::string script = command;
  const std::array<char*, 4> arguments = {shell.data(), option.data(), script.data(), nullptr};
  pid_t child = 0;
  if (const int error = ::posix_spawn(&child, "/bin/sh", how.Actions(), how.Attributes(), arguments.data(), environ)) {
    throw LocalFailure("/bin/sh", error);
  }
  g_group = child;
}

}  // namespace

int RunShellCommand(const std::string& command, int input) {
  CatchEndingSignals(PassOn);
  // If it is ignored, the kernel keeps no status to wait for.
  ::signal(SIGCHLD, SIG_DFL);
  Start(command, input);
  const pid_t child = g_group;
  siginfo_t info{};
  // Another process can get the group's number as soon as the child is reaped, so the group is forgotten before.
  const bool has_ended = ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) == 0;
  g_group = 0;
  int status = 0;
  if (!has_ended || ::waitpid(child, &status, 0) < 0) {
    throw LocalFailure("waitpid", errno);
  }
  return status;
}

}  // namespace ledgerctl
