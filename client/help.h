// What "help" prints, for terminals of 80 columns.
#pragma once

#include <string>

namespace ledgerctl {

/// All verbs, options and exit statuses.
std::string HelpText();

/// One verb, which must exist, in full.
std::string HelpText(const std::string& verb);

/// "ledgerctl 1.2.3".
std::string VersionText();

}  // namespace ledgerctl
