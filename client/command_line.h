// The command line as a plain structure.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "registry/registry_format.h"

namespace ledgerctl {

struct VerbEntry;

struct CommandLine {
  const VerbEntry* verb = nullptr;  // null: --version
  bool version = false;

  bool quiet = false;
  bool nul = false;
  bool json = false;
  std::chrono::milliseconds timeout{25000};
  std::string shown_timeout = "25";

  std::optional<std::string> section;
  std::optional<std::string> key;
  RegistrySection pairs;          // of set: keys in lower case, and their values
  bool after_dashes = false;      // "--" precedes the names and values
  std::vector<std::string> rest;  // words that the rules of the verb interpret
  std::optional<std::string> default_value;
  std::optional<std::string> file;
  std::optional<std::string> topic;  // of help
  std::chrono::milliseconds interval{1000};
  std::optional<std::string> exec;

  std::optional<double> fail_above;  // percent

  bool flush = false;
  bool force = false;
  bool whole_section = false;
  bool confirmed = false;
  bool sync = false;
  bool replace = false;
  bool missing_only = false;
  bool dry_run = false;
  bool text = false;
};

/// Parses `arguments`, which do not include the program's name. Throws Failure (Usage).
CommandLine ParseCommandLine(const std::vector<std::string>& arguments);

/// Returns the options of a verb, as "--name" or "-n", without those that all verbs have. A test compares them with the
/// help.
std::vector<std::string> OptionsOf(const VerbEntry& verb);

}  // namespace ledgerctl
