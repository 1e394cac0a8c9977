// A second implementation of JSON, as plain as possible. It recurses, so the texts must be short.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "registry/registry_format.h"

namespace fuzz {

struct JsonValue {
  enum class Kind { Null, String, Object, Other };

  Kind kind = Kind::Other;
  std::string text;                          // of a string
  std::map<std::string, JsonValue> members;  // of an object; the last of several with the same name
};

/// Returns nothing if the text is not JSON.
std::optional<JsonValue> ModelParseJson(const std::string& text);

bool ModelIsUtf8(const std::string& text);

/// Returns nothing if a name or a value is not UTF-8.
std::optional<std::string> ModelPrintJson(const RegistrySections& sections);

}  // namespace fuzz
