// The functions of the verbs.
#pragma once

#include "client/command_line.h"
#include "client/failure.h"
#include "client/output.h"
#include "registry/registry.h"

namespace ledgerctl {

/// The environment of a verb. All of it outlives the verb.
struct Context {
  Registry& registry;
  Output& output;
  const Messages& messages;
};

// Each runs its verb. They throw Failure and what the registry throws.

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

// In help.cpp.
ExitStatus ShowHelp(const CommandLine& command, Context& context);

}  // namespace ledgerctl
