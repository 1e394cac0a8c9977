#include "client/json_text.h"

#include <nlohmann/json.hpp>

namespace ledgerctl {

using nlohmann::json;

std::string QuoteJson(const std::string& text) {
  return json(text).dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string PrintIndentedJson(const RegistrySections& sections) {
  std::string text = "{";
  const char* section_separator = "\n";
  for (const auto& [name, keys] : sections) {
    text += section_separator;
    text += "  " + QuoteJson(name) + ": {";
    section_separator = ",\n";
    const char* key_separator = "\n";
    for (const auto& [key, value] : keys) {
      text += key_separator;
      text += "    " + QuoteJson(key) + ": " + QuoteJson(value);
      key_separator = ",\n";
    }
    text += keys.empty() ? "}" : "\n  }";
  }
  text += sections.empty() ? "}\n" : "\n}\n";
  return text;
}

std::string PrintJsonSection(const RegistrySection& section) {
  std::string text = "{";
  const char* separator = "";
  for (const auto& [key, value] : section) {
    text += separator + QuoteJson(key) + ":" + QuoteJson(value);
    separator = ",";
  }
  return text + "}";
}

}  // namespace ledgerctl
