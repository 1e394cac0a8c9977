#include <poll.h>
#include <unistd.h>

#include <csignal>

#include "client/difference.h"
#include "client/name_rules.h"
#include "client/registry_snapshot.h"
#include "client/verbs.h"

namespace ledgerctl {
namespace {

// What is watched. A section or key that is missing may come.
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
  return watched;
}

// Waits, and ends the program as SIGPIPE does if the reader of the output goes meanwhile: without a change nothing
// would be written that could tell.
void WaitFor(std::chrono::milliseconds time) {
  pollfd output = {STDOUT_FILENO, 0, 0};
  if (::poll(&output, 1, static_cast<int>(time.count())) > 0 && (output.revents & POLLERR) != 0) {
    ::raise(SIGPIPE);
    throw Failure(ExitStatus::Local, "standard output: nobody reads it");
  }
}

}  // namespace

ExitStatus Watch(const CommandLine& command, Context& context) {
  for (RegistrySections before = ReadWatched(command, context.registry);;) {
    WaitFor(command.interval);
    RegistrySections now = ReadWatched(command, context.registry);
    PrintDifferences(FindDifferences(before, now), context.output);
    context.output.Flush();
    before = std::move(now);
  }
}

}  // namespace ledgerctl
