// The one table of verbs: the name, the arguments, the help and the function of each.
#pragma once

#include <array>
#include <string_view>

#include "client/command_line.h"
#include "client/verbs.h"

namespace CLI {
class App;
}

namespace ledgerctl {

struct VerbEntry {
  const char* name;
  const char* arguments;  // as in a synopsis
  const char* summary;    // half a line
  const char* details;    // lines of at most 80 columns, each with its newline
  bool takes_nul;         // -0
  bool takes_json;        // --json
  void (*declare)(CLI::App& app, CommandLine& command);
  ExitStatus (*run)(const CommandLine& command, Context& context);
};

/// All verbs, in the order of the help.
extern const std::array<VerbEntry, 15> kVerbs;

/// Null if there is no verb of that name.
const VerbEntry* FindVerb(std::string_view name);

}  // namespace ledgerctl
