#include "client/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>

#include "client/exit_status.h"
#include "client/text_form.h"

namespace ledgerctl {
namespace {

bool BeginsWithDash(const std::string& word) { return word.rfind('-', 0) == 0; }

[[noreturn]] void ThrowUsage(const std::string& verb, const std::string& reason) {
  throw Failure(ExitStatus::Usage, (verb.empty() ? "" : verb + ": ") + reason + "\nTry \"ledgerctl help" +
                                       (verb.empty() ? "" : " " + verb) + "\".");
}

// What CLI11 fills in, turned into a CommandLine afterwards.
struct RawOptions {
  std::string section, key, value, default_value, file, topic;
  std::optional<std::string> timeout, interval;
  bool version = false;
};

using Declare = void (*)(CLI::App&, CommandLine&, RawOptions&);

void DeclareNothing(CLI::App&, CommandLine&, RawOptions&) {}

CLI::Option* Section(CLI::App& app, RawOptions& raw) { return app.add_option("SECTION", raw.section); }
CLI::Option* Key(CLI::App& app, RawOptions& raw) { return app.add_option("KEY", raw.key); }
CLI::Option* File(CLI::App& app, RawOptions& raw) { return app.add_option("FILE", raw.file); }

void DeclareGet(CLI::App& app, CommandLine&, RawOptions& raw) {
  Section(app, raw)->required();
  Key(app, raw)->required();
  app.add_option("--default", raw.default_value);
}

void DeclareSet(CLI::App& app, CommandLine& command, RawOptions& raw) {
  Section(app, raw)->required();
  Key(app, raw)->required();
  app.add_option("VALUE", raw.value)->required();
  app.add_flag("--flush", command.flush);
}

void DeclareExists(CLI::App& app, CommandLine&, RawOptions& raw) {
  Section(app, raw)->required();
  Key(app, raw);
}

void DeclareSection(CLI::App& app, CommandLine&, RawOptions& raw) { Section(app, raw); }

void DeclareUnset(CLI::App& app, CommandLine& command, RawOptions& raw) {
  Section(app, raw)->required();
  Key(app, raw);
  app.add_flag("-r", command.whole_section);
}

void DeclareClear(CLI::App& app, CommandLine& command, RawOptions&) { app.add_flag("--yes", command.confirmed); }

void DeclareFlush(CLI::App& app, CommandLine& command, RawOptions&) { app.add_flag("--sync", command.sync); }

void DeclareDump(CLI::App& app, CommandLine&, RawOptions& raw) { File(app, raw); }

void DeclareLoad(CLI::App& app, CommandLine& command, RawOptions& raw) {
  File(app, raw);
  app.add_flag("--replace", command.replace);
  app.add_flag("--missing-only", command.missing_only);
  app.add_flag("--dry-run", command.dry_run);
}

void DeclareDiff(CLI::App& app, CommandLine&, RawOptions& raw) { File(app, raw)->required(); }

void DeclareWatch(CLI::App& app, CommandLine&, RawOptions& raw) {
  Section(app, raw);
  Key(app, raw);
  app.add_option("-i", raw.interval);
}

void DeclareHelp(CLI::App& app, CommandLine&, RawOptions& raw) { app.add_option("VERB", raw.topic); }

struct VerbEntry {
  const char* name;
  Declare declare;
  Verb verb;
  bool takes_nul;
  bool takes_json;
};

constexpr VerbEntry kVerbs[] = {
    {"get", DeclareGet, Verb::Get, true, true},           {"set", DeclareSet, Verb::Set, false, false},
    {"exists", DeclareExists, Verb::Exists, false, true}, {"list", DeclareSection, Verb::List, true, true},
    {"show", DeclareSection, Verb::Show, false, true},    {"unset", DeclareUnset, Verb::Unset, false, false},
    {"clear", DeclareClear, Verb::Clear, false, false},   {"flush", DeclareFlush, Verb::Flush, false, false},
    {"dump", DeclareDump, Verb::Dump, false, false},      {"load", DeclareLoad, Verb::Load, false, false},
    {"edit", DeclareSection, Verb::Edit, false, false},   {"diff", DeclareDiff, Verb::Diff, false, false},
    {"watch", DeclareWatch, Verb::Watch, false, false},   {"usage", DeclareNothing, Verb::Usage, false, true},
    {"help", DeclareHelp, Verb::Help, false, false},
};

const VerbEntry* FindVerb(const std::string& name) {
  const auto* const found =
      std::find_if(std::begin(kVerbs), std::end(kVerbs), [&](const VerbEntry& entry) { return name == entry.name; });
  return found == std::end(kVerbs) ? nullptr : found;
}

// Before the verb and after it.
void DeclareCommon(CLI::App& app, CommandLine& command, RawOptions& raw) {
  app.set_help_flag("-h,--help");
  app.add_flag("-q,--quiet", command.quiet);
  app.add_flag("-0,--null", command.nul);
  app.add_flag("--json", command.json);
  app.add_option("--timeout", raw.timeout);
}

// Seconds with decimals. Not strtod, which asks the locale.
std::chrono::milliseconds ParseSeconds(const std::string& verb, const char* option, const std::string& text) {
  // libdbus waits six hours at most.
  constexpr double kLongest = 6 * 3600;
  constexpr double kShortest = 0.001;
  // Stays 0 if the text begins with no number, or with one that is out of range.
  double seconds = 0;
  const char* const end = text.data() + text.size();
  if (std::from_chars(text.data(), end, seconds).ptr != end || !(seconds >= kShortest && seconds <= kLongest)) {
    ThrowUsage(verb, std::string(option) + ": " + QuoteWord(text) + " is no number of seconds");
  }
  return std::chrono::milliseconds(std::lround(seconds * 1000));
}

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
    ThrowUsage(verb, ReasonOf(e, app.remaining()));
  }
}

std::optional<std::string> Given(const CLI::App& app, const char* option, const std::string& text) {
  const CLI::Option* const found = app.get_option_no_throw(option);
  return found != nullptr && found->count() != 0 ? std::optional<std::string>(text) : std::nullopt;
}

void CheckCombination(const VerbEntry& entry, const CommandLine& command) {
  if (command.nul && !entry.takes_nul) {
    ThrowUsage(entry.name, "-0 goes with get and list only");
  }
  if (command.json && !entry.takes_json) {
    ThrowUsage(entry.name, "--json goes with get, exists, list, show and usage only");
  }
  if (command.nul && command.json) {
    ThrowUsage(entry.name, "-0 and --json exclude each other");
  }
  if (command.replace && command.missing_only) {
    ThrowUsage(entry.name, "--replace and --missing-only exclude each other");
  }
  if (command.verb == Verb::Unset && command.whole_section && command.key) {
    ThrowUsage(entry.name, "-r deletes a whole section, without KEY");
  }
  if (command.verb == Verb::Unset && !command.whole_section && !command.key) {
    ThrowUsage(entry.name, "this deletes the whole " + ShownSection(*command.section) + "; confirm it with -r");
  }
  if (command.verb == Verb::Clear && !command.confirmed) {
    ThrowUsage(entry.name, "this deletes the whole registry; confirm it with --yes");
  }
}

}  // namespace

CommandLine ParseCommandLine(const std::vector<std::string>& arguments) {
  CommandLine command;
  RawOptions raw;
  std::string verb;
  // Two steps, not the library's subcommands: a section may have a verb's name, and only one verb's options are set up.
  try {
    CLI::App outer;
    DeclareCommon(outer, command, raw);
    outer.add_flag("--version", raw.version);
    outer.prefix_command();
    ParseWith(outer, "", arguments);
    if (raw.version) {
      command.verb = Verb::Version;
      return command;
    }
    std::vector<std::string> rest = outer.remaining();
    if (rest.empty()) {
      ThrowUsage("", "a verb is missing");
    }
    const VerbEntry* const entry = FindVerb(rest.front());
    if (entry == nullptr) {
      ThrowUsage("", (BeginsWithDash(rest.front()) ? "unknown option " : "unknown verb ") + QuoteWord(rest.front()));
    }
    verb = entry->name;
    command.verb = entry->verb;
    rest.erase(rest.begin());

    CLI::App inner;
    DeclareCommon(inner, command, raw);
    entry->declare(inner, command, raw);
    ParseWith(inner, verb, rest);
    command.section = Given(inner, "SECTION", raw.section);
    command.key = Given(inner, "KEY", raw.key);
    command.value = raw.value;
    command.default_value = Given(inner, "--default", raw.default_value);
    command.file = Given(inner, "FILE", raw.file);
    command.topic = Given(inner, "VERB", raw.topic);
    CheckCombination(*entry, command);
  } catch (const CLI::CallForHelp&) {
    command = CommandLine();
    command.topic = verb.empty() ? std::nullopt : std::optional<std::string>(verb);
    return command;
  }
  if (raw.timeout) {
    command.timeout = ParseSeconds(verb, "--timeout", *raw.timeout);
    command.shown_timeout = *raw.timeout;
  }
  if (raw.interval) {
    command.interval = ParseSeconds(verb, "-i", *raw.interval);
  }
  if (command.verb == Verb::Help && command.topic && FindVerb(*command.topic) == nullptr) {
    ThrowUsage("", "unknown verb " + QuoteWord(*command.topic));
  }
  return command;
}

const std::vector<std::string>& VerbNames() {
  static const std::vector<std::string> kNames = [] {
    std::vector<std::string> names;
    for (const VerbEntry& entry : kVerbs) {
      names.emplace_back(entry.name);
    }
    return names;
  }();
  return kNames;
}

std::vector<std::string> OptionsOf(const std::string& verb) {
  CLI::App app;
  app.set_help_flag();
  CommandLine command;
  RawOptions raw;
  FindVerb(verb)->declare(app, command, raw);
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options([](const CLI::Option* each) { return each->nonpositional(); })) {
    names.push_back(option->get_name());
  }
  return names;
}

}  // namespace ledgerctl
