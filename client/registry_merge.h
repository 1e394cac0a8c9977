// The changes of one WriteJson call: a document of a user, or one that was made from a wanted change.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "registry/registry_format.h"

namespace ledgerctl {

/// Key to its new value; none deletes the key.
using KeyMerge = std::map<std::string, std::optional<std::string>>;

/// None deletes the section. An empty merge makes the section if it is missing.
using SectionMerge = std::optional<KeyMerge>;

/// By name as written. Names that differ in case only act on the same section or key one after the other, in ascending
/// byte order: upper case first.
using Merge = std::map<std::string, SectionMerge>;

/// Reads a JSON document. Throws Registry::InvalidName, and Failure (NotADocument) with `source` before the reason and,
/// for what is not JSON, the line and the column.
Merge ParseMerge(const std::string& json, const std::string& source);

/// The merge that sets everything in `sections`.
Merge MergeOf(const RegistrySections& sections);

/// The JSON text for one call that makes the merge.
std::string PrintMerge(const Merge& merge);

/// Does to `sections` what the daemon does to the registry.
void ApplyMerge(const Merge& merge, RegistrySections& sections);

/// What the merge makes of an empty registry: everything that it sets.
RegistrySections ContentsOf(const Merge& merge);

/// The merge that turns `before` into `after` and leaves alone what is the same in both.
Merge MergeBetween(const RegistrySections& before, const RegistrySections& after);

/// The merge that makes the registry equal to `after`, also where it has changed since it was seen as `before`; only a
/// name that neither knows stays.
Merge MergeThatReplaces(const RegistrySections& before, const RegistrySections& after);

/// What `sections` holds and `existing` does not.
Merge MergeOfMissing(const RegistrySections& existing, const RegistrySections& sections);

}  // namespace ledgerctl
