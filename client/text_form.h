// The registry as text for people: "[section]" and "key=value" lines whose words a shell reads back, as "show" prints
// them and "edit" takes them.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "registry/registry_format.h"

namespace ledgerctl {

enum class TextPart { SectionName, Key, Other };

/// Hands the text form piece by piece to `print`, which may throw. It ends in a line feed unless it is empty.
void PrintText(const RegistrySections& sections, const std::function<void(TextPart, const std::string&)>& print);

/// The same in one piece.
std::string PrintText(const RegistrySections& sections);

/// Reads the text form. Blank lines and lines that begin with "#" are passed over; blanks around names and values
/// belong to them only within quotes; names are folded. Throws Failure (NotADocument) with the line's number, and
/// Registry::InvalidName.
RegistrySections ParseText(std::string_view text);

}  // namespace ledgerctl
