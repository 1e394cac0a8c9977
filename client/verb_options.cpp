#include "client/verb_options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <system_error>
#include <utility>

#include "client/quote_word.h"
#include "client/verb_table.h"
#include "registry/name_rules.h"

namespace ledgerctl {
namespace {

// The library would make nothing of an empty text.
CLI::Option* AddText(CLI::App& app, const char* name, std::optional<std::string>& target) {
  return app.add_option_function<std::string>(name, [&target](const std::string& text) { target = text; });
}

// Decimals are allowed. Not strtod, which asks the locale.
double ParseNumber(const char* option, const std::string& text, double smallest, double largest, const char* range) {
  double number = 0;
  const char* const end = text.data() + text.size();
  const auto [parsed, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || parsed != end || !(number >= smallest && number <= largest)) {
    throw CLI::ValidationError(std::string(option) + ": " + QuoteWord(text) + " is not " + range);
  }
  return number;
}

std::chrono::milliseconds ParseSeconds(const char* option, const std::string& text) {
  // libdbus waits six hours at most.
  const double seconds = ParseNumber(option, text, 0.001, 21600, "a number of seconds from 0.001 to 21600");
  return std::chrono::milliseconds(std::lround(seconds * 1000));
}

CLI::Option* Section(CLI::App& app, CommandLine& command) { return AddText(app, "SECTION", command.section); }
CLI::Option* Key(CLI::App& app, CommandLine& command) { return AddText(app, "KEY", command.key); }
CLI::Option* File(CLI::App& app, CommandLine& command) { return AddText(app, "FILE", command.file); }

// Sorts the words after SECTION.
void SortPairs(CommandLine& command) {
  bool is_input_used = false;
  for (std::size_t i = 0; i < command.rest.size(); i += 2) {
    const std::string& key = command.rest[i];
    const std::size_t equals_sign = key.find('=');
    if (equals_sign != std::string::npos && !command.after_dashes) {
      throw CLI::ValidationError("KEY " + QuoteWord(key) + " has \"=\" in it\nwrite: ledgerctl set " +
                                 QuoteWord(*command.section) + " " + QuoteWord(key.substr(0, equals_sign)) + " " +
                                 QuoteWord(key.substr(equals_sign + 1)));
    }
    if (i + 1 == command.rest.size()) {
      throw CLI::ValidationError("KEY " + QuoteWord(key) + " needs a VALUE" +
                                 (key.rfind('-', 0) == 0 ? "\nWrite options before SECTION." : ""));
    }
    const std::string& value = command.rest[i + 1];
    if (!command.pairs.emplace(FoldName(key), value).second) {
      throw CLI::ValidationError("KEY " + QuoteWord(key) + " is given twice");
    }
    if (value == "-" && !command.after_dashes && std::exchange(is_input_used, true)) {
      throw CLI::ValidationError("only one VALUE can be \"-\"");
    }
  }
  if (command.pairs.empty()) {
    throw CLI::ValidationError("KEY is required");
  }
}

}  // namespace

Failure UsageFailure(const std::string& verb, const std::string& reason) {
  return Failure(ExitStatus::Usage, (verb.empty() ? "" : verb + ": ") + reason + "\nTry \"ledgerctl help" +
                                        (verb.empty() ? "" : " " + verb) + "\".");
}

void DeclareCommonOptions(CLI::App& app, CommandLine& command) {
  app.set_help_flag("-h,--help");
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.add_flag("-q,--quiet", command.quiet);
  app.add_flag("-0,--null", command.nul);
  app.add_flag("--json", command.json);
  app.add_option_function<std::string>("--timeout", [&command](const std::string& text) {
    command.timeout = ParseSeconds("--timeout", text);
    command.shown_timeout = text;
  });
}

void DeclareNothing(CLI::App&, CommandLine&) {}

void DeclareGet(CLI::App& app, CommandLine& command) {
  Section(app, command)->required();
  Key(app, command)->required();
  AddText(app, "--default", command.default_value);
}

void DeclareSet(CLI::App& app, CommandLine& command) {
  Section(app, command)->required();
  app.add_flag("--flush", command.flush);
  app.add_flag("--force", command.force);
  // Names and values are literal: no word after SECTION is an option.
  app.prefix_command();
  app.final_callback([&command] { SortPairs(command); });
}

void DeclareExists(CLI::App& app, CommandLine& command) {
  Section(app, command)->required();
  Key(app, command);
}

void DeclareSection(CLI::App& app, CommandLine& command) { Section(app, command); }

void DeclareUnset(CLI::App& app, CommandLine& command) {
  Section(app, command)->required();
  Key(app, command);
  app.add_flag("-r", command.whole_section);
  app.final_callback([&command] {
    if (command.whole_section && command.key) {
      throw CLI::ValidationError("-r deletes a whole section and takes no KEY");
    }
    if (!command.whole_section && !command.key) {
      throw CLI::ValidationError("this deletes the whole " + ShownSection(*command.section) + "; confirm it with -r");
    }
  });
}

void DeclareClear(CLI::App& app, CommandLine& command) {
  app.add_flag("--yes", command.confirmed);
  app.final_callback([&command] {
    if (!command.confirmed) {
      throw CLI::ValidationError("this deletes the whole registry; confirm it with --yes");
    }
  });
}

void DeclareFlush(CLI::App& app, CommandLine& command) { app.add_flag("--sync", command.sync); }

void DeclareDump(CLI::App& app, CommandLine& command) { File(app, command); }

void DeclareLoad(CLI::App& app, CommandLine& command) {
  File(app, command);
  app.add_flag("--replace", command.replace);
  app.add_flag("--missing-only", command.missing_only);
  app.add_flag("--dry-run", command.dry_run);
  app.add_flag("--text", command.text);
  app.add_flag("--force", command.force);
  app.final_callback([&command] {
    if (command.replace && command.missing_only) {
      throw CLI::ValidationError("--replace and --missing-only exclude each other");
    }
  });
}

void DeclareEdit(CLI::App& app, CommandLine& command) {
  Section(app, command);
  app.add_flag("--force", command.force);
}

void DeclareDiff(CLI::App& app, CommandLine& command) { File(app, command)->required(); }

void DeclareWatch(CLI::App& app, CommandLine& command) {
  Section(app, command);
  Key(app, command);
  app.add_option_function<std::string>(
      "-i", [&command](const std::string& text) { command.interval = ParseSeconds("-i", text); });
  AddText(app, "--exec", command.exec);
}

void DeclareUsage(CLI::App& app, CommandLine& command) {
  app.add_option_function<std::string>("--fail-above", [&command](const std::string& text) {
    command.fail_above = ParseNumber("--fail-above", text, 0, 100, "a percentage from 0 to 100");
  });
}

void DeclareHelp(CLI::App& app, CommandLine& command) {
  AddText(app, "VERB", command.topic);
  app.final_callback([&command] {
    if (command.topic && FindVerb(*command.topic) == nullptr) {
      throw UsageFailure("", "unknown verb " + QuoteWord(*command.topic));
    }
  });
}

}  // namespace ledgerctl
