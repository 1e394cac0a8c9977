#include "client/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "client/quote_word.h"
#include "client/verb_options.h"
#include "client/verb_table.h"

namespace ledgerctl {
namespace {

bool BeginsWithDash(const std::string& word) { return word.rfind('-', 0) == 0; }

// What the library says, in the words of the rest of the program. `left` is what it could make nothing of.
std::string ReasonOf(const CLI::ParseError& error, const std::vector<std::string>& left) {
  std::string reason = error.what();
  if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) {
    reason = "unexpected argument " + QuoteWord(left.front());
  } else if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr) {
    reason.resize(std::min(reason.find(": "), reason.size()));
    reason += " needs a value";
  }
  const bool is_option = !left.empty() && BeginsWithDash(left.front());
  return reason + (is_option ? "\nNames and values that begin with \"-\" go behind \"--\"." : "");
}

void ParseWith(CLI::App& app, const std::string& verb, std::vector<std::string> arguments) {
  // The library takes them from the back.
  std::reverse(arguments.begin(), arguments.end());
  try {
    app.parse(arguments);
  } catch (const CLI::CallForHelp&) {
    throw;
  } catch (const CLI::ParseError& e) {
    throw UsageFailure(verb, ReasonOf(e, app.remaining()));
  }
}

void CheckForm(const VerbEntry& entry, const CommandLine& command) {
  if (command.nul && !entry.takes_nul) {
    throw UsageFailure(entry.name, "-0 goes with get and list only");
  }
  if (command.json && !entry.takes_json) {
    throw UsageFailure(entry.name, "--json goes with get, exists, list, show and usage only");
  }
  if (command.nul && command.json) {
    throw UsageFailure(entry.name, "-0 and --json exclude each other");
  }
}

}  // namespace

CommandLine ParseCommandLine(const std::vector<std::string>& arguments) {
  CommandLine command;
  // Two steps, not the library's subcommands: a section may have a verb's name, and only one verb's options are set up.
  try {
    CLI::App outer;
    DeclareCommonOptions(outer, command);
    outer.add_flag("--version", command.version);
    outer.prefix_command();
    ParseWith(outer, "", arguments);
    if (command.version) {
      return command;
    }
    std::vector<std::string> rest = outer.remaining();
    if (rest.empty()) {
      throw UsageFailure("", "a verb is missing");
    }
    command.verb = FindVerb(rest.front());
    if (command.verb == nullptr) {
      throw UsageFailure(
          "", (BeginsWithDash(rest.front()) ? "unknown option " : "unknown verb ") + QuoteWord(rest.front()));
    }
    rest.erase(rest.begin());

    CLI::App inner;
    DeclareCommonOptions(inner, command);
    command.verb->declare(inner, command);
    ParseWith(inner, command.verb->name, rest);
    CheckForm(*command.verb, command);
    return command;
  } catch (const CLI::CallForHelp&) {
    CommandLine help;
    help.verb = FindVerb("help");
    if (command.verb != nullptr) {
      help.topic = command.verb->name;
    }
    return help;
  }
}

std::vector<std::string> OptionsOf(const VerbEntry& verb) {
  CLI::App app;
  app.set_help_flag();
  CommandLine command;
  verb.declare(app, command);
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options([](const CLI::Option* each) { return each->nonpositional(); })) {
    names.push_back(option->get_name());
  }
  return names;
}

}  // namespace ledgerctl
