// What a user should know of a merge or of the registry before relying on it.
#pragma once

#include <string>
#include <vector>

#include "client/registry_merge.h"
#include "registry/registry_format.h"

namespace ledgerctl {

/// One line for each thing in the merge that a restart of the daemon would lose, and for names that fold to the same.
std::vector<std::string> MergeWarnings(const Merge& merge);

/// The warning that a restart of the daemon loses something.
std::string LostAtRestart(const std::string& what, const char* why);

/// Moves names that no caller can reach out of `sections` and returns one line for each section or key.
std::vector<std::string> DropUnreachable(RegistrySections& sections);

}  // namespace ledgerctl
