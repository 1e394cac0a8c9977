#include "client/text_form.h"

#include <cstddef>

#include "client/failure.h"
#include "client/quote_word.h"
#include "lib/platform/hex_text.h"
#include "registry/name_rules.h"
#include "registry/registry.h"

namespace ledgerctl {
namespace {

// Reads the text once, from its beginning to its end.
class TextReader {
public:
  TextReader(std::string_view text, const TextRules& rules) : m_text(text), m_rules(rules) {}

  RegistrySections Read() {
    RegistrySections sections;
    RegistrySection* section = nullptr;
    std::string section_name;
    for (SkipEmptyLines(); !AtEnd(); SkipEmptyLines()) {
      if (Peek() == '[') {
        section_name = Header();
        section = &sections[section_name];
      } else if (section == nullptr) {
        Fail("this key is before the first [section]");
      } else {
        AddKey(section_name, *section);
      }
      ExpectEndOfLine();
    }
    return sections;
  }

  bool HasNothing() {
    SkipEmptyLines();
    return AtEnd();
  }

private:
  bool AtEnd() const { return m_position == m_text.size(); }
  char Peek() const { return m_text[m_position]; }

  char Take() {
    const char c = m_text[m_position++];
    m_line += c == '\n' ? 1 : 0;
    return c;
  }

  bool AtLineEnd() const { return AtEnd() || Peek() == '\n'; }
  bool AtSpace() const { return !AtEnd() && (Peek() == ' ' || Peek() == '\t' || Peek() == '\r'); }

  void SkipSpaces() {
    while (AtSpace()) {
      Take();
    }
  }

  void SkipEmptyLines() {
    for (;;) {
      SkipSpaces();
      if (!AtEnd() && Peek() == '#') {
        while (!AtLineEnd()) {
          Take();
        }
      }
      if (AtEnd() || Peek() != '\n') {
        return;
      }
      Take();
    }
  }

  std::string Header() {
    Take();
    std::string name = Name("]");
    if (AtLineEnd()) {
      Fail("\"]\" is missing");
    }
    Take();
    if (m_rules.only_section && name != *m_rules.only_section) {
      Fail("this is " + ShownSection(name) + ", but only " + ShownSection(*m_rules.only_section) + " can be changed");
    }
    return name;
  }

  void AddKey(const std::string& section_name, RegistrySection& section) {
    const std::string key = Name("=");
    std::string value;
    if (!AtEnd() && Peek() == '=') {
      Take();
      value = Word("");
    }
    if (!IsUtf8(value)) {
      Fail("the value of " + ShownKey(section_name, key) + " is not UTF-8");
    }
    if (!section.emplace(key, value).second) {
      Fail(ShownKey(section_name, key) + " occurs twice");
    }
  }

  void ExpectEndOfLine() {
    SkipSpaces();
    if (!AtLineEnd()) {
      Fail("unexpected text after the [section]");
    }
  }

  [[noreturn]] void Fail(const std::string& reason) const { FailAt(m_line, ExitStatus::NotADocument, reason); }

  [[noreturn]] void FailAt(std::size_t line, ExitStatus status, const std::string& reason) const {
    throw Failure(
        status, m_rules.source + (m_rules.source.empty() ? "" : ": ") + "line " + std::to_string(line) + ": " + reason);
  }

  std::string Name(std::string_view ends) {
    const std::string name = Word(ends);
    try {
      return FoldName(name);
    } catch (const Registry::InvalidName&) {
      const Failure failure = CurrentFailure();
      FailAt(m_line, failure.Status(), failure.what());
    }
  }

  // Up to one of `ends` or the end of the line. White space at both ends does not count unless it is quoted.
  std::string Word(std::string_view ends) {
    SkipSpaces();
    std::string word;
    std::size_t kept = 0;
    while (!AtLineEnd() && ends.find(Peek()) == std::string_view::npos) {
      const bool is_space = AtSpace();
      const char c = Take();
      m_quote_line = m_line;
      if (c == '\'') {
        Quoted(word, '\'', "");
      } else if (c == '"') {
        Quoted(word, '"', "\"\\$`");
      } else if (c == '$' && !AtEnd() && Peek() == '\'') {
        Take();
        QuotedWithEscapes(word);
      } else if (c == '\\' && !AtLineEnd()) {
        word += Take();
      } else {
        word += c;
      }
      kept = is_space ? kept : word.size();
    }
    word.resize(kept);
    return word;
  }

  char TakeWithinQuotes() {
    if (AtEnd()) {
      FailAt(m_quote_line, ExitStatus::NotADocument, "the quote is not closed");
    }
    return Take();
  }

  // Up to the closing quote; a backslash takes its meaning from one of `escapable`.
  void Quoted(std::string& word, char quote, std::string_view escapable) {
    for (char c; (c = TakeWithinQuotes()) != quote;) {
      if (c == '\\' && !AtEnd() && escapable.find(Peek()) != std::string_view::npos) {
        c = Take();
      }
      word += c;
    }
  }

  void QuotedWithEscapes(std::string& word) {
    for (char c; (c = TakeWithinQuotes()) != '\'';) {
      word += c == '\\' ? Escape() : c;
    }
  }

  char Escape() {
    const char c = TakeWithinQuotes();
    switch (c) {
      case 'n':
        return '\n';
      case 'r':
        return '\r';
      case 't':
        return '\t';
      case 'x': {
        const int high = bramble::HexDigitValue(TakeWithinQuotes());
        const int low = bramble::HexDigitValue(TakeWithinQuotes());
        if (high < 0 || low < 0) {
          Fail("\\x needs two hexadecimal digits");
        }
        return static_cast<char>(high * 16 + low);
      }
      case '\'':
      case '\\':
      case '"':
        return c;
      default:
        Fail(std::string("unknown escape \\") + QuoteWord(std::string(1, c)));
    }
  }

  const std::string_view m_text;
  const TextRules m_rules;
  std::size_t m_position = 0;
  std::size_t m_line = 1;
  std::size_t m_quote_line = 1;  // where the last quote opened
};

}  // namespace

void PrintText(const RegistrySections& sections, const std::function<void(TextPart, const std::string&)>& print) {
  bool first = true;
  for (const auto& [name, keys] : sections) {
    if (!first) {
      print(TextPart::Other, "\n");
    }
    first = false;
    print(TextPart::SectionName, "[" + QuoteWord(name) + "]");
    print(TextPart::Other, "\n");
    for (const auto& [key, value] : keys) {
      print(TextPart::Key, QuoteWord(key));
      print(TextPart::Other, "=" + (value.empty() ? "" : QuoteWord(value)) + "\n");
    }
  }
}

std::string PrintText(const RegistrySections& sections) {
  std::string text;
  PrintText(sections, [&](TextPart, const std::string& piece) { text += piece; });
  return text;
}

RegistrySections ParseText(std::string_view text, const TextRules& rules) { return TextReader(text, rules).Read(); }

bool IsEmptyText(std::string_view text) { return TextReader(text, {}).HasNothing(); }

}  // namespace ledgerctl
