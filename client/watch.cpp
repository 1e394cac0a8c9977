#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "client/difference.h"
#include "client/registry_snapshot.h"
#include "client/shell_command.h"
#include "client/verbs.h"
#include "lib/platform/posix_helpers.h"
#include "registry/name_rules.h"

namespace ledgerctl {
namespace {

// A section or key that is missing may be added later.
RegistrySections ReadWatched(const CommandLine& command, Registry& registry) {
  if (!command.section) {
    return ReadRegistry(registry);
  }
  const std::string section = FoldName(*command.section);
  const std::optional<std::string> wanted = command.key ? std::optional(FoldName(*command.key)) : std::nullopt;
  RegistrySections watched;
  registry.KeyList(section, [&](const std::string& key, const std::string& value) {
    if (!wanted || key == *wanted) {
      watched[section][key] = value;
    }
  });
  if (!wanted && watched.empty() && registry.SectionExists(section)) {
    watched[section];
  }
  return watched;
}

// Nothing while there is no daemon or no bus; warns when that begins.
std::optional<RegistrySections> ReadAgain(const CommandLine& command, const Context& context, bool& is_waiting) {
  try {
    RegistrySections now = ReadWatched(command, context.registry);
    is_waiting = false;
    return now;
  } catch (const Failure& e) {
    // A bus that starts has its socket a moment before its users may connect to it.
    const bool is_starting = is_waiting && e.Status() == ExitStatus::Denied;
    if (e.Status() != ExitStatus::NotRunning && !is_starting) {
      throw;
    }
    if (!is_waiting) {
      context.messages.Warning(e.what() + std::string("\nThe watch continues when the daemon runs again."));
    }
    is_waiting = true;
    return std::nullopt;
  }
}

// Waits, and ends the program as SIGPIPE does if meanwhile nobody can read the output any more: without a change
// nothing is written that could fail.
void WaitFor(std::chrono::milliseconds time) {
  pollfd output = {STDOUT_FILENO, 0, 0};
  if (::poll(&output, 1, static_cast<int>(time.count())) > 0 && (output.revents & POLLERR) != 0) {
    ::raise(SIGPIPE);
    throw Failure(ExitStatus::Local, "standard output: nobody reads it");
  }
}

void Print(const std::vector<Difference>& changes, bool json, Output& output) {
  if (json) {
    PrintDifferencesAsJson(changes, output);
  } else {
    PrintDifferences(changes, output);
  }
  output.Flush();
}

// The command gets a file, not a pipe: it need not read it, and may read it while nobody writes.
void RunOnChanges(const std::vector<Difference>& changes, const CommandLine& command, const Messages& messages) {
  const bramble::FileDescriptor file(::memfd_create("changes", MFD_CLOEXEC));
  if (!file.IsOpen()) {
    throw LocalFailure("memfd_create", errno);
  }
  Output output(file.Get());
  Print(changes, command.json, output);
  ::lseek(file.Get(), 0, SEEK_SET);
  const int status = RunShellCommand(*command.exec, file.Get());
  if (WIFSIGNALED(status)) {
    messages.Warning("the command was ended by signal " + std::to_string(WTERMSIG(status)));
  } else if (WEXITSTATUS(status) != 0) {
    messages.Warning("the command failed with status " + std::to_string(WEXITSTATUS(status)));
  }
}

}  // namespace

ExitStatus Watch(const CommandLine& command, Context& context) {
  bool is_waiting = false;
  for (RegistrySections before = ReadWatched(command, context.registry);;) {
    WaitFor(command.interval);
    std::optional<RegistrySections> now = ReadAgain(command, context, is_waiting);
    const std::vector<Difference> changes = now ? FindDifferences(before, *now) : std::vector<Difference>();
    if (changes.empty()) {
      continue;
    }
    if (command.exec) {
      RunOnChanges(changes, command, context.messages);
    } else {
      Print(changes, command.json, context.output);
    }
    before = *std::move(now);
  }
}

}  // namespace ledgerctl
