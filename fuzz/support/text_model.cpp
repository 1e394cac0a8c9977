#include "fuzz/support/text_model.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <vector>

namespace fuzz {
namespace {

int DigitValue(char digit) {
  static const std::string kDigits = "0123456789abcdef0123456789ABCDEF";
  const std::size_t index = kDigits.find(digit);
  return index == std::string::npos ? 0 : static_cast<int>(index % 16);
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines(1);
  for (const char byte : text) {
    if (byte == '\r' || byte == '\n') {
      lines.emplace_back();
    } else {
      lines.back() += byte;
    }
  }
  return lines;
}

}  // namespace

std::string ModelEscape(const std::string& text, const std::string& set) {
  std::string escaped;
  for (const char byte : text) {
    if (set.find(byte) == std::string::npos) {
      escaped += byte;
    } else {
      char form[4];
      std::snprintf(form, sizeof form, "%%%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
      escaped += form;
    }
  }
  return escaped;
}

std::string ModelUnescape(const std::string& text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      plain += text[i];
    } else if (text.size() - i > 2) {
      plain += static_cast<char>(DigitValue(text[i + 1]) * 16 + DigitValue(text[i + 2]));
      i += 2;
    }
  }
  return plain;
}

std::string ModelSerialise(const RegistrySections& sections) {
  std::string text;
  for (const auto& section : sections) {
    text += "[" + ModelEscape(section.first, "%[]\r\n") + "]\n";
    for (const auto& key : section.second) {
      text += ModelEscape(key.first, "%\r\n=");
      text += key.second.empty() ? "\n" : "=" + ModelEscape(key.second, "%\r\n") + "\n";
    }
  }
  return text;
}

RegistrySections ModelParse(const std::string& text) {
  RegistrySections sections;
  std::string section = "null";
  for (const std::string& line : Lines(text)) {
    if (line.empty()) {
      continue;
    }
    if (line[0] == '[') {
      section = ModelUnescape(line.substr(1, std::min(line.find(']'), line.size()) - 1));
      sections[section] = RegistrySection();
    } else {
      const std::size_t equals = std::min(line.find('='), line.size());
      const std::string value = equals == line.size() ? "" : line.substr(equals + 1);
      sections[section][ModelUnescape(line.substr(0, equals))] = ModelUnescape(value);
    }
  }
  return sections;
}

bool SurvivesReload(const RegistrySections& sections) {
  for (const auto& section : sections) {
    for (const auto& [key, value] : section.second) {
      if (key.empty() ? value.empty() : key[0] == '[') {
        return false;
      }
    }
  }
  return true;
}

}  // namespace fuzz
