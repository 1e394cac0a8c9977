// Converts a JSON text to a sequence of events. The JSON library splits the text into tokens. The sequence of the
// tokens is checked here, because the parser of the library copies the text several times for an error message, and
// cannot continue after a number that does not fit a double.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

#include "registry/stop_check.h"

/// The text is not JSON. what() begins with "parse error - unexpected ".
class JsonSyntaxError : public std::runtime_error {
public:
  JsonSyntaxError(const std::string& text, std::size_t offset) : std::runtime_error(text), m_offset(offset) {}

  /// Where the unexpected part begins, in bytes; the length of the text if the text ends too early.
  std::size_t Offset() const noexcept { return m_offset; }

private:
  std::size_t m_offset;
};

/// Receives the parts of a text in their order. The default implementations ignore them.
class JsonHandler {
public:
  virtual ~JsonHandler() = default;

  /// The name of the next member. `end` is the offset after its closing quote.
  virtual void Name(const std::string& /*name*/, std::size_t /*end*/) {}

  virtual void Null() {}
  virtual void String(const std::string& /*value*/) {}

  /// A number, true or false, as written.
  virtual void Other(const std::string& /*token*/) {}

  virtual void Start(bool /*is_object*/) {}
  virtual void End() {}
};

/// Parses `text`, which must be one JSON value, and calls `handler` for each part. The depth of the value and the
/// length of the text are not limited. Throws JsonSyntaxError, WorkStopped, std::bad_alloc and the exceptions of
/// `handler`.
void ParseJson(std::string_view text, JsonHandler& handler, StopCheck& stop);

/// Like ParseJson, for a value at the beginning of `text`. Does not read what follows the value.
void ParseJsonValue(std::string_view text, JsonHandler& handler, StopCheck& stop);

/// Returns a number, true or false as the JSON library prints it. Returns a number that does not fit a double
/// unchanged.
std::string PrintJsonScalar(const std::string& token);
