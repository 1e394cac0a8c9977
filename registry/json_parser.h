// JSON text as a sequence of events. The JSON library takes the text apart into tokens; the sequence of the tokens is
// checked here, because the library's own parser copies the text several times for an error and cannot go on after a
// number that no double holds.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

#include "registry/stop_check.h"

/// The text is not JSON. The text begins "parse error - unexpected ".
class JsonSyntaxError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// Takes what a text consists of, in its order. What is not overridden is ignored.
class JsonHandler {
public:
  virtual ~JsonHandler() = default;

  /// The name of the next member. The text goes on at `end`, after the closing quote.
  virtual void Name(const std::string& /*name*/, std::size_t /*end*/) {}

  virtual void Null() {}
  virtual void String(const std::string& /*value*/) {}

  /// A number, true or false, as written.
  virtual void Other(const std::string& /*token*/) {}

  virtual void Start(bool /*is_object*/) {}
  virtual void End() {}
};

/// Hands the parts of `text`, which is one JSON value with nothing after it, to `handler`. Neither the depth of the
/// value nor the length of the text matters. Throws JsonSyntaxError, WorkStopped, std::bad_alloc and what `handler`
/// throws.
void ParseJson(std::string_view text, JsonHandler& handler, StopCheck& stop);

/// Likewise for a value at the beginning of `text`; what follows the value is not looked at.
void ParseJsonValue(std::string_view text, JsonHandler& handler, StopCheck& stop);

/// Returns the number, true or false as the JSON library prints it. Returns a number that no double holds unchanged.
std::string PrintJsonScalar(const std::string& token);
