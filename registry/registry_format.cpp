#include "registry/registry_format.h"

#include <boost/tokenizer.hpp>

#include "lib/platform/escape.h"

namespace {

constexpr escape::ByteSet kEscapedInSection("%[]\r\n");
constexpr escape::ByteSet kEscapedInKey("%\r\n=");
constexpr escape::ByteSet kEscapedInValue("%\r\n");

// The section of key lines that stand before the first header; deliberately not the empty name.
constexpr char kDefaultSection[] = "null";

std::string HeaderName(const std::string& line) {
  const std::size_t end = line.find(']');
  return escape::UnescapeCopy(line.substr(1, end == std::string::npos ? end : end - 1));
}

void InsertKeyLine(RegistrySection& section, const std::string& line) {
  const std::size_t equals = line.find('=');
  std::string& value = section[escape::UnescapeCopy(line.substr(0, equals))];
  value = equals == std::string::npos ? std::string() : escape::UnescapeCopy(line.substr(equals + 1));
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
  std::string current = kDefaultSection;
  const boost::char_separator<char> line_ends("\r\n");
  for (const std::string& line : boost::tokenizer<boost::char_separator<char>>(text, line_ends)) {
    if (line.front() == '[') {
      current = HeaderName(line);
      sections[current].clear();
    } else {
      InsertKeyLine(sections[current], line);
    }
  }
  return sections;
}
