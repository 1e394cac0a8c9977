#include "tests/model/json.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace model {
namespace {

struct NotJson {};

void Expect(bool condition) {
  if (!condition) {
    throw NotJson();
  }
}

std::string EncodeUtf8(std::uint32_t character) {
  const auto continuation = [&](int shift) { return static_cast<char>(0x80 | ((character >> shift) & 0x3F)); };
  if (character < 0x80) {
    return {static_cast<char>(character)};
  }
  if (character < 0x800) {
    return {static_cast<char>(0xC0 | (character >> 6)), continuation(0)};
  }
  if (character < 0x10000) {
    return {static_cast<char>(0xE0 | (character >> 12)), continuation(6), continuation(0)};
  }
  return {static_cast<char>(0xF0 | (character >> 18)), continuation(12), continuation(6), continuation(0)};
}

bool IsSurrogate(std::uint32_t character) { return character >= 0xD800 && character < 0xE000; }

class Parser {
public:
  explicit Parser(const std::string& text) : m_text(text) {}

  JsonValue ParseDocument() {
    // The text may begin with a byte order mark.
    TakeWord("\xEF\xBB\xBF");
    JsonValue value = ParseValue();
    Expect(TakeToken("") && m_at == m_text.size());
    return value;
  }

private:
  bool TakeWord(const char* word) {
    const bool found = m_text.compare(m_at, std::strlen(word), word) == 0;
    m_at += found ? std::strlen(word) : 0;
    return found;
  }

  // Skips whitespace before the word.
  bool TakeToken(const char* word) {
    m_at += std::strspn(m_text.c_str() + m_at, " \t\r\n");
    return TakeWord(word);
  }

  bool TakeDigits() {
    const std::size_t count = std::strspn(m_text.c_str() + m_at, "0123456789");
    m_at += count;
    return count > 0;
  }

  JsonValue ParseValue() {
    JsonValue value;
    if (TakeToken("{")) {
      value.kind = JsonValue::Kind::Object;
      ParseItems("}", [&] {
        Expect(TakeToken("\""));
        const std::string name = ParseString();
        Expect(TakeToken(":"));
        value.members[name] = ParseValue();
      });
    } else if (TakeToken("[")) {
      ParseItems("]", [&] { ParseValue(); });
    } else if (TakeToken("\"")) {
      value.kind = JsonValue::Kind::String;
      value.text = ParseString();
    } else if (TakeToken("null")) {
      value.kind = JsonValue::Kind::Null;
    } else if (!TakeToken("true") && !TakeToken("false")) {
      ParseNumber();
    }
    return value;
  }

  template <typename ParseItem>
  void ParseItems(const char* end, ParseItem parse_item) {
    if (TakeToken(end)) {
      return;
    }
    do {
      parse_item();
    } while (TakeToken(","));
    Expect(TakeToken(end));
  }

  void ParseNumber() {
    TakeWord("-");
    Expect(TakeWord("0") || TakeDigits());
    Expect(!TakeWord(".") || TakeDigits());
    if (TakeWord("e") || TakeWord("E")) {
      TakeWord("+") || TakeWord("-");
      Expect(TakeDigits());
    }
  }

  std::string ParseString() {
    std::string text;
    for (;;) {
      const std::size_t end = m_text.find_first_of("\"\\", m_at);
      Expect(end != std::string::npos);
      const std::string run = m_text.substr(m_at, end - m_at);
      Expect(IsUtf8(run) && std::all_of(run.begin(), run.end(), [](unsigned char byte) { return byte >= 0x20; }));
      text += run;
      m_at = end + 1;
      if (m_text[end] == '"') {
        return text;
      }
      text += ParseEscape();
    }
  }

  std::string ParseEscape() {
    static const std::string kNames = "\"\\/bfnrt";
    static const char kBytes[] = "\"\\/\b\f\n\r\t";
    if (TakeWord("u")) {
      std::uint32_t character = ParseFourDigits();
      if (IsSurrogate(character)) {
        Expect(character < 0xDC00 && TakeWord("\\u"));
        const std::uint32_t low = ParseFourDigits();
        Expect(IsSurrogate(low) && low >= 0xDC00);
        character = 0x10000 + ((character - 0xD800) << 10) + (low - 0xDC00);
      }
      return EncodeUtf8(character);
    }
    const std::size_t index = m_at < m_text.size() ? kNames.find(m_text[m_at]) : std::string::npos;
    Expect(index != std::string::npos);
    ++m_at;
    return {kBytes[index]};
  }

  std::uint32_t ParseFourDigits() {
    std::uint32_t number = 0;
    for (const char digit : m_text.substr(m_at, 4)) {
      Expect(DigitValue(digit) >= 0);
      number = number * 16 + static_cast<std::uint32_t>(DigitValue(digit));
    }
    m_at += 4;
    Expect(m_at <= m_text.size());
    return number;
  }

  const std::string& m_text;
  std::size_t m_at = 0;
};

}  // namespace

std::optional<JsonValue> ParseJson(const std::string& text) {
  try {
    return Parser(text).ParseDocument();
  } catch (const NotJson&) {
    return std::nullopt;
  }
}

std::string Quote(const std::string& text) {
  static const std::string kNamed = "\"\\\b\f\n\r\t";
  static const char kNames[] = "\"\\bfnrt";
  std::string quoted = "\"";
  for (const char byte : text) {
    const std::size_t index = kNamed.find(byte);
    if (index != std::string::npos) {
      quoted += std::string("\\") + kNames[index];
    } else if (static_cast<unsigned char>(byte) < 0x20) {
      char form[7];
      std::snprintf(form, sizeof form, "\\u%04x", static_cast<unsigned>(byte));
      quoted += form;
    } else {
      quoted += byte;
    }
  }
  return quoted + "\"";
}

std::string PrintJson(const Sections& sections) {
  std::string json;
  for (const auto& [section, keys] : sections) {
    std::string members;
    for (const auto& [key, value] : keys) {
      members += (members.empty() ? "" : ",") + Quote(key) + ":" + Quote(value);
    }
    json += (json.empty() ? "" : ",") + Quote(section) + ":{" + members + "}";
  }
  return "{" + json + "}";
}

bool IsUtf8(const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const auto lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80) {
      ++at;
      continue;
    }
    const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    std::uint32_t character = lead & (0xFFU >> (length + 1));
    for (const char byte : text.substr(at, length).substr(1)) {
      character = character << 6 | (static_cast<unsigned char>(byte) & 0x3FU);
    }
    // Neither an overlong nor a malformed sequence is the encoding of the character that it decodes to.
    if (IsSurrogate(character) || character > 0x10FFFF || EncodeUtf8(character) != text.substr(at, length)) {
      return false;
    }
    at += length;
  }
  return true;
}

}  // namespace model
