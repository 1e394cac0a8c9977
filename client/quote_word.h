// Names and values in messages and in the text form.
#pragma once

#include <string>
#include <string_view>

namespace ledgerctl {

/// Returns the text, quoted if necessary, as one word for a shell. If it contains anything that must not be sent to a
/// terminal unchanged, such as control characters and bytes that are not UTF-8, it is quoted as $'...' for bash, zsh
/// and ksh.
std::string QuoteWord(std::string_view text);

/// Returns whether the text is UTF-8.
bool IsUtf8(std::string_view text);

/// "section 'name'" and "key 'name' in section 'name'", for messages.
std::string ShownSection(std::string_view section);
std::string ShownKey(std::string_view section, std::string_view key);

}  // namespace ledgerctl
