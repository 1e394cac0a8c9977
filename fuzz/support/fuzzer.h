// What each fuzzer uses: its input as fields, and checks. A failed check prints the actual and the expected value and
// aborts, so that the fuzzing engine keeps the input.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tests/model/registry_model.h"

namespace fuzz {

/// Fields are on a line each, so that seeds can be written with an editor.
class Input {
public:
  explicit Input(std::string_view bytes) : m_rest(bytes) {}

  bool AtEnd() const { return m_rest.empty(); }

  /// Returns the bytes up to the next newline or the end. A backslash quotes the next byte, which may be a newline.
  std::string TakeField();

  /// Reads a field and returns the decimal number at its beginning: 0 if there is none, `greatest` if it is larger.
  std::size_t TakeNumber(std::size_t greatest);

  /// Returns all remaining bytes unchanged.
  std::string TakeRest();

private:
  char TakeByte();

  std::string_view m_rest;
};

/// Call this once, before the first input. Keeps failed assertions out of the machine's kernel log.
void Prepare();

/// Defined by each fuzzer: runs one input.
void Run(Input input);

void Require(bool condition, const char* what);
void RequireEqual(const std::string& actual, const std::string& expected, const char* what);
void RequireExpected(const model::Reply& actual, const model::Reply& expected, const std::string& what);

}  // namespace fuzz
