#include "registry/registry_format.h"

#include <boost/tokenizer.hpp>
#include <string_view>

#include "lib/platform/escape.h"

namespace {

constexpr escape::ByteSet kEscapedInSection("%[]\r\n");
constexpr escape::ByteSet kEscapedInKey("%\r\n=");
constexpr escape::ByteSet kEscapedInValue("%\r\n");

// The section of key lines before the first header. Deliberately not the empty name.
constexpr char kDefaultSection[] = "null";

// Finds the separators faster than the standard traits, which would call memchr() for each byte of the text.
struct FewCharacters : std::char_traits<char> {
  static const char* find(const char* text, std::size_t size, const char& wanted) {
    for (; size > 0; ++text, --size) {
      if (*text == wanted) {
        return text;
      }
    }
    return nullptr;
  }
};

using LineEnds = boost::char_separator<char, FewCharacters>;

std::string HeaderName(std::string_view line) {
  const std::size_t end = line.find(']');
  return escape::UnescapeCopy(line.substr(1, end == std::string_view::npos ? end : end - 1));
}

void InsertKeyLine(RegistrySection& section, std::string_view line) {
  const std::size_t equals = line.find('=');
  const std::string_view value = equals == std::string_view::npos ? std::string_view() : line.substr(equals + 1);
  // The daemon writes lines in order, so most keys belong at the end.
  section.insert_or_assign(section.end(), escape::UnescapeCopy(line.substr(0, equals)), escape::UnescapeCopy(value));
}

}  // namespace

void AppendSection(std::string& text, const std::string& name, const RegistrySection& keys) {
  text += '[';
  escape::AppendEscaped(text, name, kEscapedInSection);
  text += "]\n";
  for (const auto& [key, value] : keys) {
    escape::AppendEscaped(text, key, kEscapedInKey);
    if (!value.empty()) {
      text += '=';
      escape::AppendEscaped(text, value, kEscapedInValue);
    }
    text += '\n';
  }
}

std::string SerialiseRegistry(const RegistrySections& sections) {
  std::string text;
  for (const auto& [name, keys] : sections) {
    AppendSection(text, name, keys);
  }
  return text;
}

RegistrySections ParseRegistry(const std::string& text) {
  RegistrySections sections;
  RegistrySection* current = nullptr;
  for (const std::string& line : boost::tokenizer<LineEnds>(text, LineEnds("\r\n"))) {
    if (line.front() == '[') {
      current = &sections[HeaderName(line)];
      current->clear();
    } else {
      if (current == nullptr) {
        current = &sections[kDefaultSection];
      }
      InsertKeyLine(*current, line);
    }
  }
  return sections;
}
