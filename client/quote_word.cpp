#include "client/quote_word.h"

#include <utf8.h>

#include <cstddef>
#include <cstdint>

namespace ledgerctl {
namespace {

bool IsPlain(char c) {
  constexpr std::string_view kPlain = "_@%+:,./-";
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         kPlain.find(c) != std::string_view::npos;
}

// The character at the start of a text, and its length in bytes. The length is 0 if the text does not start with UTF-8.
struct Character {
  std::uint32_t code;
  std::size_t length;
};

Character FirstCharacter(std::string_view text) {
  const char* end = text.data();
  try {
    const std::uint32_t code = utf8::next(end, text.data() + text.size());
    return {code, static_cast<std::size_t>(end - text.data())};
  } catch (const utf8::exception&) {
    return {0, 0};
  }
}

// Control characters, and characters that change the direction of the text or break its line.
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

// Returns $'...', in which all bytes that could harm a terminal are escaped.
std::string QuoteWithEscapes(std::string_view text) {
  std::string word = "$'";
  while (!text.empty()) {
    const Character character = FirstCharacter(text);
    if (character.length == 0 || HarmsTerminal(character.code)) {
      // The other bytes of the character are not UTF-8 by themselves, so they are escaped too.
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

bool IsUtf8(std::string_view text) { return utf8::is_valid(text.begin(), text.end()); }

std::string ShownSection(std::string_view section) { return "section " + QuoteAlways(section); }

std::string ShownKey(std::string_view section, std::string_view key) {
  return "key " + QuoteAlways(key) + " in " + ShownSection(section);
}

}  // namespace ledgerctl
