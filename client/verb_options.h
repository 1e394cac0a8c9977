// The positional arguments and options of each verb, declared to CLI11.
#pragma once

#include <string>

#include "client/command_line.h"
#include "client/failure.h"

namespace CLI {
class App;
}

namespace ledgerctl {

/// A Failure (Usage): "verb: reason" and where to read more. `verb` may be empty.
Failure UsageFailure(const std::string& verb, const std::string& reason);

/// The options that may precede and follow a verb. `command` must outlive the parsing of `app`.
void DeclareCommonOptions(CLI::App& app, CommandLine& command);

// Each declares the other arguments of one verb or of a group of verbs. `command` must outlive the parsing of `app`.
void DeclareNothing(CLI::App& app, CommandLine& command);
void DeclareGet(CLI::App& app, CommandLine& command);
void DeclareSet(CLI::App& app, CommandLine& command);
void DeclareExists(CLI::App& app, CommandLine& command);
void DeclareSection(CLI::App& app, CommandLine& command);
void DeclareUnset(CLI::App& app, CommandLine& command);
void DeclareClear(CLI::App& app, CommandLine& command);
void DeclareFlush(CLI::App& app, CommandLine& command);
void DeclareDump(CLI::App& app, CommandLine& command);
void DeclareLoad(CLI::App& app, CommandLine& command);
void DeclareEdit(CLI::App& app, CommandLine& command);
void DeclareDiff(CLI::App& app, CommandLine& command);
void DeclareWatch(CLI::App& app, CommandLine& command);
void DeclareUsage(CLI::App& app, CommandLine& command);
void DeclareHelp(CLI::App& app, CommandLine& command);

}  // namespace ledgerctl
