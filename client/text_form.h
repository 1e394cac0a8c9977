// The registry as text for people: "[section]" and "key=value" lines whose words a shell reads back. "show" prints it;
// "edit" and "load --text" read it.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "registry/registry_format.h"

namespace ledgerctl {

enum class TextPart { SectionName, Key, Other };

/// Hands the text form piece by piece to `print`, which may throw. It ends in a newline unless it is empty.
void PrintText(const RegistrySections& sections, const std::function<void(TextPart, const std::string&)>& print);

/// The same in one piece.
std::string PrintText(const RegistrySections& sections);

/// The rules of a reader in addition to those of the form.
struct TextRules {
  std::string source;                       // how an error names the text; may be empty
  std::optional<std::string> only_section;  // the only section that the text may have, folded
};

/// Reads the text form. Empty lines and lines that begin with "#" are skipped. White space around names and values
/// belongs to them only within quotes. Names are folded. Throws Failure with the line's number: InvalidName, or
/// NotADocument for any other mistake, such as a value that is not UTF-8.
RegistrySections ParseText(std::string_view text, const TextRules& rules = {});

/// Whether the text has only empty lines and comments.
bool IsEmptyText(std::string_view text);

}  // namespace ledgerctl
