// Fuzzer of the parser of the bootloader environment. The parser must return the environment of the model or fail with
// its error. It must not read outside the erase block: the buffer has exactly the size of the block, so
// AddressSanitizer notices.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

#include "fuzz/support/diagnostics.h"
#include "fuzz/support/require.h"
#include "lib/hardware/cfe_environment.h"

namespace {

struct Outcome {
  std::string error;
  CfeEnvironment environment;
  std::string diagnostics;
};

Outcome Model(const std::string& block) {
  Outcome outcome;
  if (block.empty() || block[0] == '\xFF') {
    return outcome;
  }
  std::string rest = block;
  while (!rest.empty() && rest[0] != 0) {
    const std::size_t length = rest.size() < 2 ? 0 : static_cast<unsigned char>(rest[1]);
    if (rest[0] != 1) {
      return {"Unknown record type", {}, outcome.diagnostics};
    }
    if (rest.size() < 2) {
      return {"Record header truncated", {}, outcome.diagnostics};
    }
    if (rest.size() < 2 + length) {
      return {"Record content truncated", {}, outcome.diagnostics};
    }
    const std::string text = length == 0 ? "" : rest.substr(3, length - 1);
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
      outcome.diagnostics += "No equals sign in environment string\n";
    } else {
      outcome.environment[text.substr(0, equals)] = text.substr(equals + 1);
    }
    rest.erase(0, 2 + length);
  }
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::unique_ptr<unsigned char[]> block(new unsigned char[size]);
  std::copy(data, data + size, block.get());

  Outcome outcome;
  {
    fuzz::Diagnostics diagnostics;
    try {
      outcome.environment = ParseCfeEnvironment(block.get(), size);
    } catch (const std::runtime_error& e) {
      outcome.error = e.what();
    }
    outcome.diagnostics = diagnostics.Text();
  }
  const Outcome expected = Model(std::string(data, data + size));
  fuzz::RequireEqual(outcome.error, expected.error, "the parser's error");
  fuzz::Require(outcome.environment == expected.environment, "the environment is that of the model");
  fuzz::RequireEqual(outcome.diagnostics, expected.diagnostics, "standard error");
  return 0;
}
