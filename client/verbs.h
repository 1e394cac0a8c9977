// What each verb does.
#pragma once

#include "client/command_line.h"
#include "client/exit_status.h"
#include "client/output.h"
#include "registry/registry.h"
#include "registry/registry_format.h"

namespace ledgerctl {

/// What a verb works with; all of it outlives the verb.
struct Context {
  Registry& registry;
  Output& output;
  const Messages& messages;
};

/// Runs the verb of the command line. Throws Failure and what the registry throws.
ExitStatus RunVerb(const CommandLine& command, Context& context);

// In verbs_keys.cpp.
ExitStatus Get(const CommandLine& command, Context& context);
ExitStatus Set(const CommandLine& command, Context& context);
ExitStatus Exists(const CommandLine& command, Context& context);
ExitStatus Unset(const CommandLine& command, Context& context);
ExitStatus Clear(const CommandLine& command, Context& context);
ExitStatus Flush(const CommandLine& command, Context& context);

// In verbs_view.cpp.
ExitStatus List(const CommandLine& command, Context& context);
ExitStatus Show(const CommandLine& command, Context& context);
ExitStatus ShowUsage(const CommandLine& command, Context& context);

// In verbs_document.cpp.
ExitStatus Dump(const CommandLine& command, Context& context);
ExitStatus Load(const CommandLine& command, Context& context);
ExitStatus Diff(const CommandLine& command, Context& context);

// In edit.cpp and watch.cpp.
ExitStatus Edit(const CommandLine& command, Context& context);
ExitStatus Watch(const CommandLine& command, Context& context);

// What several verbs need, in registry_snapshot.cpp.

/// The whole registry, by one call.
RegistrySections ReadRegistry(Registry& registry);

/// A section by one call; by two if it is empty, to tell that from missing. Throws Failure (Missing).
RegistrySection ReadSection(Registry& registry, const std::string& section);

/// Throws Registry::Full if the registry could not hold them.
void CheckFits(const RegistrySections& sections);

constexpr std::size_t kCapacity = 16383;

}  // namespace ledgerctl
