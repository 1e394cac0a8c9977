#include "tests/model/text_form.h"

#include <algorithm>
#include <cstddef>

namespace model {

int DigitValue(char digit) {
  static const std::string kDigits = "0123456789abcdef0123456789ABCDEF";
  const std::size_t index = kDigits.find(digit);
  return index == std::string::npos ? -1 : static_cast<int>(index % 16);
}

std::string Escape(const std::string& text, const std::string& set) {
  static const char kDigits[] = "0123456789abcdef";
  std::string escaped;
  std::size_t begin = 0;
  for (std::size_t end; (end = text.find_first_of(set, begin)) != std::string::npos; begin = end + 1) {
    const auto byte = static_cast<unsigned char>(text[end]);
    escaped.append(text, begin, end - begin).append({'%', kDigits[byte / 16], kDigits[byte % 16]});
  }
  return escaped.append(text, begin);
}

std::string Unescape(const std::string& text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      plain += text[i];
    } else if (text.size() - i > 2) {
      plain += static_cast<char>(std::max(DigitValue(text[i + 1]), 0) * 16 + std::max(DigitValue(text[i + 2]), 0));
      i += 2;
    }
  }
  return plain;
}

std::string Serialise(const Sections& sections) {
  std::string text;
  for (const auto& [name, keys] : sections) {
    text += "[" + Escape(name, "%[]\r\n") + "]\n";
    for (const auto& [key, value] : keys) {
      text += Escape(key, "%\r\n=") + (value.empty() ? "" : "=" + Escape(value, "%\r\n")) + "\n";
    }
  }
  return text;
}

Sections Parse(const std::string& text) {
  Sections sections;
  std::string section = "null";
  for (std::size_t begin = 0, end; begin < text.size(); begin = end + 1) {
    end = std::min(text.find_first_of("\r\n", begin), text.size());
    const std::string line = text.substr(begin, end - begin);
    if (line[0] == '[') {
      section = Unescape(line.substr(1, line.find(']') - 1));
      sections[section].clear();
    } else if (!line.empty()) {
      const std::size_t equals = std::min(line.find('='), line.size());
      sections[section][Unescape(line.substr(0, equals))] = Unescape(line.substr(std::min(equals + 1, line.size())));
    }
  }
  return sections;
}

}  // namespace model
