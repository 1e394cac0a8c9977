// A second implementation of JSON, as plain as possible. It recurses, so the texts must not be nested deeply.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "tests/model/text_form.h"

namespace model {

struct JsonValue {
  enum class Kind { Null, String, Object, Other };

  Kind kind = Kind::Other;
  std::string text;                          // of a string
  std::map<std::string, JsonValue> members;  // of an object; the last of several with the same name
};

/// Returns nothing if the text is not JSON.
std::optional<JsonValue> ParseJson(const std::string& text);

/// Returns the string as JSON, with its quotation marks.
std::string Quote(const std::string& text);

/// Returns the text of an object of objects.
std::string PrintJson(const Sections& sections);

bool IsUtf8(const std::string& text);

}  // namespace model
