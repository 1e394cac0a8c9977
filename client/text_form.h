// The registry as text for people: "[section]" and "key=value" lines whose names and values are quoted as for a shell.
// "show" prints it; "edit" and "load --text" read it.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "registry/registry_format.h"

namespace ledgerctl {

enum class TextPart { SectionName, Key, Other };

/// Passes the text form piece by piece to `print`, which may throw. The text ends with a newline unless it is empty.
void PrintText(const RegistrySections& sections, const std::function<void(TextPart, const std::string&)>& print);

/// The same in one piece.
std::string PrintText(const RegistrySections& sections);

/// What a caller of ParseText requires in addition to the rules of the text form.
struct TextRules {
  std::string source;                       // how an error names the text; may be empty
  std::optional<std::string> only_section;  // the only section that the text may have, folded
};

/// Reads the text form. Empty lines and lines that begin with "#" are skipped. White space around names and values
/// belongs to them only within quotes. Names are folded. Throws Failure with the line's number: InvalidName, or
/// NotADocument for any other mistake, such as a value that is not UTF-8.
RegistrySections ParseText(std::string_view text, const TextRules& rules = {});

/// Returns whether the text has only empty lines and comments.
bool IsEmptyText(std::string_view text);

}  // namespace ledgerctl
