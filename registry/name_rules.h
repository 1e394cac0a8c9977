// The rules for names of sections and keys.
#pragma once

#include <string>
#include <string_view>

/// Throws Registry::InvalidName for a name with a byte of 0x80 or above.
void CheckName(const std::string& name);

/// Returns the name as the registry keeps it: with "A" to "Z" in lower case. Throws as CheckName.
std::string FoldName(const std::string& name);

/// Returns whether a caller can reach the name, because it folds to itself. A registry file that was edited by hand can
/// have others.
bool IsReachable(std::string_view name);
