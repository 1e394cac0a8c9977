// Names and values in messages and in the text form.
#pragma once

#include <string>
#include <string_view>

namespace ledgerctl {

/// The text as one word of a shell (bash, zsh, ksh: $'...' for what a terminal should not get raw, such as control
/// characters and bytes that are not UTF-8).
std::string QuoteWord(std::string_view text);

/// Whether the text is UTF-8.
bool IsUtf8(std::string_view text);

/// "section 'name'" and "key 'name' in section 'name'", for messages.
std::string ShownSection(std::string_view section);
std::string ShownKey(std::string_view section, std::string_view key);

}  // namespace ledgerctl
