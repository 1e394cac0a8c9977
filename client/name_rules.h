// The rules for names, applied before a call: the daemon would answer a bad key in a new section with an error and
// leave that section behind.
#pragma once

#include <string>
#include <string_view>

namespace ledgerctl {

/// Throws Registry::InvalidName for a name with a byte of 0x80 or above.
void CheckName(const std::string& name);

/// The name as the daemon keeps it: "A" to "Z" become lower case. Throws as CheckName.
std::string FoldName(const std::string& name);

/// Whether a caller can reach the name. A registry file that was edited by hand can hold others.
bool IsReachable(std::string_view name);

}  // namespace ledgerctl
