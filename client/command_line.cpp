#include "client/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstddef>

#include "client/quote_word.h"
#include "client/verb_options.h"
#include "client/verb_table.h"

namespace ledgerctl {
namespace {

bool BeginsWithDash(const std::string& word) { return word.rfind('-', 0) == 0; }

// The words of a command line, sorted.
struct Words {
  std::vector<std::string> options;  // an option and its value are two words
  std::vector<std::string> operands;
  bool after_dashes = false;
};

using Word = std::vector<std::string>::const_iterator;

// Moves `word` to the last word of the option. Only an exact name is an option: the library would read "-hello" as
// "-h", and "-q5" as "-q" and "-5".
void AddOption(const CLI::App& app, const std::string& verb, Word& word, Word end, Words& words) {
  const bool is_long = word->rfind("--", 0) == 0;
  const std::string name = word->substr(0, is_long ? word->find('=') : 2);
  const bool has_more = name.size() < word->size();
  const CLI::Option* const option = app.get_option_no_throw(name);
  const bool takes_value = option != nullptr && option->get_items_expected_max() > 0;
  if (option == nullptr || (has_more && !takes_value)) {
    const char* const hint = verb.empty() ? "" : "\nWrite \"--\" before names and values that begin with \"-\".";
    throw UsageFailure(verb, "unknown option " + QuoteWord(*word) + hint);
  }
  words.options.push_back(name);
  if (!takes_value) {
    return;
  }
  if (has_more) {
    words.options.push_back(word->substr(name.size() + (is_long ? 1 : 0)));
  } else if (++word == end) {
    throw UsageFailure(verb, name + " needs a value");
  } else {
    words.options.push_back(*word);
  }
}

// The first operand of a prefix command ends the options, as "--" does.
Words Sort(const CLI::App& app, const std::string& verb, const std::vector<std::string>& arguments) {
  Words words;
  bool is_option_possible = true;
  for (auto word = arguments.begin(); word != arguments.end(); ++word) {
    if (!is_option_possible || !BeginsWithDash(*word) || *word == "-") {
      words.operands.push_back(*word);
      is_option_possible = is_option_possible && !app.get_prefix_command();
    } else if (*word == "--") {
      words.after_dashes = true;
      is_option_possible = false;
    } else {
      AddOption(app, verb, word, arguments.end(), words);
    }
  }
  return words;
}

// A prefix command's surplus operands are left in `command`; other commands have none.
void ParseWith(CLI::App& app, const std::string& verb, const std::vector<std::string>& arguments,
               CommandLine& command) {
  Words words = Sort(app, verb, arguments);
  const auto places = app.get_options([](const CLI::Option* option) { return option->get_positional(); }).size();
  const auto surplus = words.operands.begin() + static_cast<std::ptrdiff_t>(std::min(places, words.operands.size()));
  if (!app.get_prefix_command() && surplus != words.operands.end()) {
    throw UsageFailure(verb, "unexpected argument " + QuoteWord(*surplus));
  }
  command.after_dashes = words.after_dashes;
  command.rest.assign(surplus, words.operands.end());
  words.options.emplace_back("--");
  words.options.insert(words.options.end(), words.operands.begin(), surplus);
  // The library takes them from the end.
  std::reverse(words.options.begin(), words.options.end());
  try {
    app.parse(words.options);
  } catch (const CLI::CallForHelp&) {
    throw;
  } catch (const CLI::ParseError& e) {
    throw UsageFailure(verb, e.what());
  }
}

void CheckForm(const VerbEntry& entry, const CommandLine& command) {
  if (command.nul && !entry.takes_nul) {
    throw UsageFailure(entry.name, "only get and list have -0");
  }
  if (command.json && !entry.takes_json) {
    throw UsageFailure(entry.name, "only get, exists, list, show, usage and watch have --json");
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
    ParseWith(outer, "", arguments, command);
    if (command.version) {
      return command;
    }
    if (command.rest.empty()) {
      throw UsageFailure("", "a verb is missing");
    }
    command.verb = FindVerb(command.rest.front());
    if (command.verb == nullptr) {
      throw UsageFailure("", "unknown verb " + QuoteWord(command.rest.front()));
    }
    const std::vector<std::string> words(command.rest.begin() + 1, command.rest.end());

    CLI::App inner;
    DeclareCommonOptions(inner, command);
    command.verb->declare(inner, command);
    ParseWith(inner, command.verb->name, words, command);
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
