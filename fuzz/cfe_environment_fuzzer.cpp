// Fuzzer of the parser of the bootloader environment. The parser must return the environment of the model or fail with
// its error. It must not read outside the erase block: the buffer has exactly the size of the block, so
// AddressSanitizer notices.
#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "fuzz/support/fuzzer.h"
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

void fuzz::Run(Input input) {
  const std::string bytes = input.TakeRest();
  const std::unique_ptr<unsigned char[]> block(new unsigned char[bytes.size()]);
  std::copy(bytes.begin(), bytes.end(), block.get());

  // Without a system call, a fuzzer runs thousands of inputs per second. The sanitizers write to descriptor 2.
  Outcome outcome;
  char* diagnostics = nullptr;
  std::size_t length = 0;
  std::FILE* const standard_error = std::exchange(stderr, ::open_memstream(&diagnostics, &length));
  try {
    outcome.environment = ParseCfeEnvironment(block.get(), bytes.size());
  } catch (const std::runtime_error& e) {
    outcome.error = e.what();
  }
  std::fclose(std::exchange(stderr, standard_error));
  outcome.diagnostics.assign(diagnostics, length);
  std::free(diagnostics);

  const Outcome expected = Model(bytes);
  RequireEqual(outcome.error, expected.error, "the parser's error");
  Require(outcome.environment == expected.environment, "the environment is that of the model");
  RequireEqual(outcome.diagnostics, expected.diagnostics, "standard error");
}
