// Warnings about a merge or about the registry.
#pragma once

#include <string>
#include <vector>

#include "client/failure.h"
#include "client/output.h"
#include "client/registry_merge.h"
#include "registry/registry_format.h"

namespace ledgerctl {

/// Returns one line for each group of names that differ only in case.
std::vector<std::string> SpellingWarnings(const Merge& merge);

/// Throws Failure (`status`) if the merge sets anything that a restart of the daemon would lose. If `force` is set,
/// prints warnings instead.
void RefuseLosses(const Merge& merge, bool force, ExitStatus status, const Messages& messages);

/// Moves names that no caller can reach out of `sections` and returns one line for each section or key.
std::vector<std::string> DropUnreachable(RegistrySections& sections);

}  // namespace ledgerctl
