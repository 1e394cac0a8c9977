#include "client/quote_word.h"

#include <cstddef>
#include <cstdint>

namespace ledgerctl {
namespace {

bool IsPlain(char c) {
  constexpr std::string_view kPlain = "_@%+:,./-";
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         kPlain.find(c) != std::string_view::npos;
}

// The character at the start of the text, and its length in bytes; a length of 0 if there is none of UTF-8.
struct Character {
  std::uint32_t code;
  std::size_t length;
};

Character FirstCharacter(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text.front());
  if (lead < 0x80) {
    return {lead, 1};
  }
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) {
    return {0, 0};
  }
  std::uint32_t code = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0) != 0x80) {
      return {0, 0};
    }
    code = code << 6 | (byte & 0x3FU);
  }
  const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
  return code < kSmallest[length] || code > 0x10FFFF || is_surrogate ? Character{0, 0} : Character{code, length};
}

// Control characters, and what turns the direction of the text around or breaks its line.
bool HarmsTerminal(std::uint32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x200E || code == 0x200F ||
         (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069) || code == 0xFEFF;
}

void AppendEscaped(std::string& word, char c) {
  constexpr char kDigits[] = "0123456789abcdef";
  switch (c) {
    case '\n':
      word += "\\n";
      break;
    case '\r':
      word += "\\r";
      break;
    case '\t':
      word += "\\t";
      break;
    default:
      const auto byte = static_cast<unsigned char>(c);
      word += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 0xF]};
  }
}

// $'...', with all bytes that are not fit for a terminal as escapes.
std::string QuoteWithEscapes(std::string_view text) {
  std::string word = "$'";
  while (!text.empty()) {
    const Character character = FirstCharacter(text);
    if (character.length == 0 || HarmsTerminal(character.code)) {
      // What follows in the character is none of UTF-8 alone, so it is escaped too.
      AppendEscaped(word, text.front());
      text.remove_prefix(1);
      continue;
    }
    if (text.front() == '\'' || text.front() == '\\') {
      word += '\\';
    }
    word += text.substr(0, character.length);
    text.remove_prefix(character.length);
  }
  return word + "'";
}

bool IsFitForTerminal(std::string_view text) {
  while (!text.empty()) {
    const Character character = FirstCharacter(text);
    if (character.length == 0 || HarmsTerminal(character.code)) {
      return false;
    }
    text.remove_prefix(character.length);
  }
  return true;
}

std::string QuoteAlways(std::string_view text) {
  if (!IsFitForTerminal(text)) {
    return QuoteWithEscapes(text);
  }
  std::string word = "'";
  for (const char c : text) {
    word += c == '\'' ? "'\\''" : std::string(1, c);
  }
  return word + "'";
}

}  // namespace

std::string QuoteWord(std::string_view text) {
  for (const char c : text) {
    if (!IsPlain(c)) {
      return QuoteAlways(text);
    }
  }
  return text.empty() ? "''" : std::string(text);
}

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const Character character = FirstCharacter(text);
    if (character.length == 0) {
      return false;
    }
    text.remove_prefix(character.length);
  }
  return true;
}

std::string ShownSection(std::string_view section) { return "section " + QuoteAlways(section); }

std::string ShownKey(std::string_view section, std::string_view key) {
  return "key " + QuoteAlways(key) + " in " + ShownSection(section);
}

}  // namespace ledgerctl
