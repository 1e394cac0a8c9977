#include "client/editor.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "client/failure.h"

namespace ledgerctl {
namespace {

std::string EditorCommand() {
  for (const char* variable : {"VISUAL", "EDITOR"}) {
    const char* const command = std::getenv(variable);
    if (command != nullptr && *command != '\0') {
      return command;
    }
  }
  return "vi";
}

// The terminal sends its signals to the editor and to this program alike.
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

// Returns the status as waitpid gives it.
int RunShell(const std::string& script, const std::string& argument) {
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGQUIT);
  ::posix_spawnattr_setsigdefault(&attributes, &defaults);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  std::array<std::string, 5> words = {"sh", "-c", script, "sh", argument};
  std::array<char*, 6> arguments{};
  for (std::size_t i = 0; i < words.size(); ++i) {
    arguments[i] = words[i].data();
  }
  pid_t child = 0;
  const int error = ::posix_spawn(&child, "/bin/sh", nullptr, &attributes, arguments.data(), environ);
  ::posix_spawnattr_destroy(&attributes);
  if (error != 0) {
    throw LocalFailure("/bin/sh", error);
  }
  int status = 0;
  // Not interrupted: the program's handlers end the program.
  if (::waitpid(child, &status, 0) < 0) {
    throw LocalFailure("waitpid", errno);
  }
  return status;
}

}  // namespace

void RunEditor(const std::string& path) {
  int status = 0;
  {
    const IgnoreTerminalSignals ignore;
    // The variables hold a command with its options, for a shell to split.
    status = RunShell(EditorCommand() + " \"$1\"", path);
  }
  if (WIFSIGNALED(status) && (WTERMSIG(status) == SIGINT || WTERMSIG(status) == SIGQUIT)) {
    // It was meant for this program too.
    ::raise(WTERMSIG(status));
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw Failure(ExitStatus::Local, "the editor failed; nothing changed");
  }
}

}  // namespace ledgerctl
