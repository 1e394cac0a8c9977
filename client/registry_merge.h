// The changes that one WriteJson call makes. They are read from a document of the user, or computed from the state that
// the registry shall have.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "registry/registry_format.h"

namespace ledgerctl {

/// Maps each key to its new value. A key without a value is deleted.
using KeyMerge = std::map<std::string, std::optional<std::string>>;

/// The changes of one section. std::nullopt deletes the section; an empty map creates it if it does not exist.
using SectionMerge = std::optional<KeyMerge>;

/// Maps the name of each section, as written, to its changes. Names of sections or keys that differ only in case mean
/// the same section or key. Their changes are made one after the other in ascending byte order, upper case first.
using Merge = std::map<std::string, SectionMerge>;

/// Reads a JSON document. Throws Registry::InvalidName, and Failure (NotADocument). The message of the failure begins
/// with `source`, and with the line and the column if the text is not JSON.
Merge ParseMerge(const std::string& json, const std::string& source);

/// Returns the merge that sets everything in `sections`.
Merge MergeOf(const RegistrySections& sections);

/// Returns the JSON text of the call that makes the merge.
std::string PrintMerge(const Merge& merge);

/// Changes `sections` in the way in which the daemon changes the registry.
void ApplyMerge(const Merge& merge, RegistrySections& sections);

/// Returns everything that the merge sets: the contents of an empty registry after the merge.
RegistrySections ContentsOf(const Merge& merge);

/// Returns the merge that turns `before` into `after`. It has no entry for a key that is the same in both.
Merge MergeBetween(const RegistrySections& before, const RegistrySections& after);

/// Returns the merge that makes the registry equal to `after`, even if it has changed since `before` was read.
/// Exception: a name that is neither in `before` nor in `after` is kept.
Merge MergeThatReplaces(const RegistrySections& before, const RegistrySections& after);

/// Returns the merge that sets the keys and sections of `sections` that `existing` does not have.
Merge MergeOfMissing(const RegistrySections& existing, const RegistrySections& sections);

}  // namespace ledgerctl
