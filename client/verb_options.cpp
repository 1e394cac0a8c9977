#include "client/verb_options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>

#include "client/quote_word.h"
#include "client/verb_table.h"

namespace ledgerctl {
namespace {

// The library would make nothing of an empty text.
CLI::Option* AddText(CLI::App& app, const char* name, std::optional<std::string>& target) {
  return app.add_option_function<std::string>(name, [&target](const std::string& text) { target = text; });
}

// Seconds with decimals. Not strtod, which asks the locale.
std::chrono::milliseconds ParseSeconds(const char* option, const std::string& text) {
  // libdbus waits six hours at most.
  constexpr double kLongest = 6 * 3600;
  constexpr double kShortest = 0.001;
  // Stays 0 if the text begins with no number, or with one that is out of range.
  double seconds = 0;
  const char* const end = text.data() + text.size();
  if (std::from_chars(text.data(), end, seconds).ptr != end || !(seconds >= kShortest && seconds <= kLongest)) {
    throw CLI::ValidationError(std::string(option) + ": " + QuoteWord(text) + " is no number of seconds");
  }
  return std::chrono::milliseconds(std::lround(seconds * 1000));
}

CLI::Option* Section(CLI::App& app, CommandLine& command) { return AddText(app, "SECTION", command.section); }
CLI::Option* Key(CLI::App& app, CommandLine& command) { return AddText(app, "KEY", command.key); }
CLI::Option* File(CLI::App& app, CommandLine& command) { return AddText(app, "FILE", command.file); }

}  // namespace

Failure UsageFailure(const std::string& verb, const std::string& reason) {
  return Failure(ExitStatus::Usage, (verb.empty() ? "" : verb + ": ") + reason + "\nTry \"ledgerctl help" +
                                        (verb.empty() ? "" : " " + verb) + "\".");
}

void DeclareCommonOptions(CLI::App& app, CommandLine& command) {
  app.set_help_flag("-h,--help");
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
  Key(app, command)->required();
  app.add_option("VALUE", command.value)->required();
  app.add_flag("--flush", command.flush);
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
      throw CLI::ValidationError("-r deletes a whole section, without KEY");
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
  app.final_callback([&command] {
    if (command.replace && command.missing_only) {
      throw CLI::ValidationError("--replace and --missing-only exclude each other");
    }
  });
}

void DeclareDiff(CLI::App& app, CommandLine& command) { File(app, command)->required(); }

void DeclareWatch(CLI::App& app, CommandLine& command) {
  Section(app, command);
  Key(app, command);
  app.add_option_function<std::string>(
      "-i", [&command](const std::string& text) { command.interval = ParseSeconds("-i", text); });
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
