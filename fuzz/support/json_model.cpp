#include "fuzz/support/json_model.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace fuzz {
namespace {

struct NotJson {};

// Returns the length of the well-formed UTF-8 sequence at position `at` of `text`, or 0 if there is none.
std::size_t SequenceLength(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t i) -> unsigned {
    return at + i < text.size() ? static_cast<unsigned char>(text[at + i]) : 0;
  };
  const unsigned lead = byte(0);
  const std::size_t length = lead < 0x80   ? 1
                             : lead < 0xC2 ? 0
                             : lead < 0xE0 ? 2
                             : lead < 0xF0 ? 3
                             : lead < 0xF5 ? 4
                                           : 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) {
      return 0;
    }
  }
  // No overlong forms, no surrogates, nothing above U+10FFFF.
  const bool excluded = (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xED && byte(1) >= 0xA0) ||
                        (lead == 0xF0 && byte(1) < 0x90) || (lead == 0xF4 && byte(1) >= 0x90);
  return excluded ? 0 : length;
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

class Parser {
public:
  explicit Parser(const std::string& text) : m_text(text) {}

  JsonValue ParseDocument() {
    // The text may begin with a byte order mark.
    TakeWord("\xEF\xBB\xBF");
    JsonValue value = ParseValue();
    SkipWhitespace();
    Expect(AtEnd());
    return value;
  }

private:
  static void Expect(bool condition) {
    if (!condition) {
      throw NotJson();
    }
  }

  bool AtEnd() const { return m_at == m_text.size(); }
  char Peek() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }
  void SkipWhitespace() { m_at += std::strspn(m_text.c_str() + m_at, " \t\r\n"); }

  bool TakeWord(const char* word) {
    if (m_text.compare(m_at, std::strlen(word), word) != 0) {
      return false;
    }
    m_at += std::strlen(word);
    return true;
  }

  bool TakeToken(const char* token) {
    SkipWhitespace();
    return TakeWord(token);
  }

  std::size_t TakeDigits() {
    const std::size_t count = std::strspn(m_text.c_str() + m_at, "0123456789");
    m_at += count;
    return count;
  }

  JsonValue ParseValue() {
    JsonValue value;
    if (TakeToken("{")) {
      value.kind = JsonValue::Kind::Object;
      ParseMembers(value);
    } else if (TakeToken("[")) {
      ParseElements();
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

  void ParseMembers(JsonValue& object) {
    if (TakeToken("}")) {
      return;
    }
    do {
      Expect(TakeToken("\""));
      const std::string name = ParseString();
      Expect(TakeToken(":"));
      object.members[name] = ParseValue();
    } while (TakeToken(","));
    Expect(TakeToken("}"));
  }

  void ParseElements() {
    if (TakeToken("]")) {
      return;
    }
    do {
      ParseValue();
    } while (TakeToken(","));
    Expect(TakeToken("]"));
  }

  void ParseNumber() {
    TakeWord("-");
    Expect(TakeWord("0") || TakeDigits() > 0);
    if (TakeWord(".")) {
      Expect(TakeDigits() > 0);
    }
    if (TakeWord("e") || TakeWord("E")) {
      TakeWord("+") || TakeWord("-");
      Expect(TakeDigits() > 0);
    }
  }

  std::string ParseString() {
    std::string text;
    while (!TakeWord("\"")) {
      if (TakeWord("\\")) {
        text += ParseEscape();
      } else {
        const std::size_t length = m_at < m_text.size() ? SequenceLength(m_text, m_at) : 0;
        Expect(length != 0 && static_cast<unsigned char>(Peek()) >= 0x20);
        text.append(m_text, m_at, length);
        m_at += length;
      }
    }
    return text;
  }

  std::string ParseEscape() {
    static const char kNames[] = "\"\\/bfnrt";
    static const char kBytes[] = "\"\\/\b\f\n\r\t";
    const char name = Peek();
    Expect(name != '\0');
    ++m_at;
    if (name != 'u') {
      const char* const found = std::strchr(kNames, name);
      Expect(found != nullptr);
      return {kBytes[found - kNames]};
    }
    std::uint32_t character = ParseFourDigits();
    Expect(character < 0xDC00 || character > 0xDFFF);
    if (character >= 0xD800 && character < 0xDC00) {
      Expect(TakeWord("\\u"));
      const std::uint32_t low = ParseFourDigits();
      Expect(low >= 0xDC00 && low <= 0xDFFF);
      character = 0x10000 + ((character - 0xD800) << 10) + (low - 0xDC00);
    }
    return EncodeUtf8(character);
  }

  std::uint32_t ParseFourDigits() {
    std::uint32_t number = 0;
    for (int i = 0; i < 4; ++i) {
      static const char kDigits[] = "0123456789abcdef0123456789ABCDEF";
      const char* const found = Peek() == '\0' ? nullptr : std::strchr(kDigits, Peek());
      Expect(found != nullptr);
      number = number * 16 + static_cast<std::uint32_t>((found - kDigits) % 16);
      ++m_at;
    }
    return number;
  }

  const std::string& m_text;
  std::size_t m_at = 0;
};

std::string Quoted(const std::string& text) {
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

}  // namespace

std::optional<JsonValue> ModelParseJson(const std::string& text) {
  try {
    return Parser(text).ParseDocument();
  } catch (const NotJson&) {
    return std::nullopt;
  }
}

bool ModelIsUtf8(const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = SequenceLength(text, at);
    if (length == 0) {
      return false;
    }
    at += length;
  }
  return true;
}

std::optional<std::string> ModelPrintJson(const RegistrySections& sections) {
  std::string json;
  for (const auto& [section, keys] : sections) {
    std::string members;
    for (const auto& [key, value] : keys) {
      members += (members.empty() ? "" : ",") + Quoted(key) + ":" + Quoted(value);
    }
    json += (json.empty() ? "" : ",") + Quoted(section) + ":{" + members + "}";
  }
  json = "{" + json + "}";
  return ModelIsUtf8(json) ? std::optional<std::string>(json) : std::nullopt;
}

}  // namespace fuzz
