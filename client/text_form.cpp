#include "client/text_form.h"

#include <cstddef>

#include "client/failure.h"
#include "client/name_rules.h"
#include "client/quote_word.h"

namespace ledgerctl {
namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// Goes through the text from its beginning to its end.
class TextReader {
public:
  explicit TextReader(std::string_view text) : m_text(text) {}

  RegistrySections Read() {
    RegistrySections sections;
    RegistrySection* section = nullptr;
    std::string section_name;
    for (SkipBlankLines(); !AtEnd(); SkipBlankLines()) {
      if (Peek() == '[') {
        Take();
        section_name = FoldName(Word("]"));
        if (AtLineEnd()) {
          Fail("\"]\" is missing");
        }
        Take();
        section = &sections[section_name];
        ExpectEndOfLine();
        continue;
      }
      if (section == nullptr) {
        Fail("a key stands before the first [section]");
      }
      const std::string key = FoldName(Word("="));
      std::string value;
      if (!AtEnd() && Peek() == '=') {
        Take();
        value = Word("");
      }
      if (!section->emplace(key, value).second) {
        Fail(ShownKey(section_name, key) + " is there twice");
      }
      ExpectEndOfLine();
    }
    return sections;
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
  bool AtBlank() const { return !AtEnd() && (Peek() == ' ' || Peek() == '\t' || Peek() == '\r'); }

  void SkipBlanks() {
    while (AtBlank()) {
      Take();
    }
  }

  void SkipBlankLines() {
    for (;;) {
      SkipBlanks();
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

  void ExpectEndOfLine() {
    SkipBlanks();
    if (!AtLineEnd()) {
      Fail("there is more than a line needs");
    }
  }

  [[noreturn]] void Fail(const std::string& reason) const {
    throw Failure(ExitStatus::NotADocument, "line " + std::to_string(m_line) + ": " + reason);
  }

  // Up to one of `ends` or the end of the line. Blanks at both ends do not count unless they are quoted.
  std::string Word(std::string_view ends) {
    SkipBlanks();
    std::string word;
    std::size_t kept = 0;
    while (!AtLineEnd() && ends.find(Peek()) == std::string_view::npos) {
      const bool is_blank = AtBlank();
      const char c = Take();
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
      kept = is_blank ? kept : word.size();
    }
    word.resize(kept);
    return word;
  }

  char TakeWithinQuotes() {
    if (AtEnd()) {
      Fail("a quote is not closed");
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
        const int high = HexDigit(TakeWithinQuotes());
        const int low = HexDigit(TakeWithinQuotes());
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
        Fail(std::string("\\") + QuoteWord(std::string(1, c)) + " means nothing");
    }
  }

  std::string_view m_text;
  std::size_t m_position = 0;
  std::size_t m_line = 1;
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

RegistrySections ParseText(std::string_view text) { return TextReader(text).Read(); }

}  // namespace ledgerctl
