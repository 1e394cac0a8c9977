// The differences between two states of the registry, and how they are printed: one line for each removed or added
// value.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/output.h"
#include "registry/registry_format.h"

namespace ledgerctl {

struct Difference {
  std::string section;
  /// None for a section without keys that is added or removed.
  std::optional<std::string> key;
  std::optional<std::string> before;
  std::optional<std::string> after;
};

/// Returns the differences in ascending order of the names.
std::vector<Difference> FindDifferences(const RegistrySections& before, const RegistrySections& after);

/// Prints "- [section] key=value" for a removed value and "+ [section] key=value" for an added value, in red and green
/// if the output has colours.
void PrintDifferences(const std::vector<Difference>& differences, Output& output);

/// One line for each: an object with "section", "key", "before" and "after". What does not exist is null. A section
/// without keys has null as its key and an empty object as its value.
void PrintDifferencesAsJson(const std::vector<Difference>& differences, Output& output);

}  // namespace ledgerctl
