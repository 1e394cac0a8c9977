#include "registry/json_printer.h"

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "lib/platform/escape.h"
#include "lib/platform/string_operations.h"

namespace {

using nlohmann::json;

constexpr escape::ByteSet kNotPlain = escape::ByteSet::Where(
    [](unsigned char byte) { return byte < 0x20 || byte >= 0x80 || byte == '"' || byte == '\\'; });

// Enough for the JSON text of a full registry, so that the text is not moved while it grows. Memory that is not used is
// never touched.
constexpr std::size_t kUsualLength = std::size_t{24} * 1024;

// Appends a comma before each member except the first.
void AppendComma(std::string& object) {
  if (object.back() != '{') {
    object += ',';
  }
}

bool IsUtf8(const std::string& text) {
  try {
    json(text).dump();
    return true;
  } catch (const json::type_error&) {
    return false;
  }
}

[[noreturn]] void ThrowNotUtf8(const RegistrySections& sections) {
  for (const auto& [name, keys] : sections) {
    const std::string section = escape::PrintableCopy(name);
    if (!IsUtf8(name)) {
      throw std::runtime_error(bramble::strprintf("No JSON: name of section '%s' is not UTF-8", section.c_str()));
    }
    for (const auto& [key_name, value] : keys) {
      const std::string key = escape::PrintableCopy(key_name);
      const char* culprit = !IsUtf8(key_name) ? "name" : !IsUtf8(value) ? "value" : nullptr;
      if (culprit != nullptr) {
        throw std::runtime_error(bramble::strprintf("No JSON: %s of key '%s' in section '%s' is not UTF-8", culprit,
                                                    key.c_str(), section.c_str()));
      }
    }
  }
  throw std::runtime_error("No JSON: registry is not UTF-8");
}

}  // namespace

void AppendJsonString(std::string& output, const std::string& text) {
  // The library creates a printer for each value, and most strings do not need one.
  if (kNotPlain.ContainsAnyOf(text)) {
    output += json(text).dump();
    return;
  }
  output += '"';
  output += text;
  output += '"';
}

std::string PrintJson(const RegistrySections& sections) {
  try {
    std::string text;
    text.reserve(kUsualLength);
    text += '{';
    for (const auto& [name, keys] : sections) {
      AppendComma(text);
      AppendJsonString(text, name);
      text += ":{";
      for (const auto& [key, value] : keys) {
        AppendComma(text);
        AppendJsonString(text, key);
        text += ':';
        AppendJsonString(text, value);
      }
      text += '}';
    }
    text += '}';
    return text;
  } catch (const json::type_error&) {
    ThrowNotUtf8(sections);
  }
}
