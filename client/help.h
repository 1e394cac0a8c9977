// What "help" prints, for terminals of 80 columns.
#pragma once

#include <string>

namespace ledgerctl {

/// Returns the help for all verbs, options and exit statuses.
std::string HelpText();

/// Returns the full help of one verb, which must exist.
std::string HelpText(const std::string& verb);

/// "ledgerctl 1.2.3".
std::string VersionText();

}  // namespace ledgerctl
