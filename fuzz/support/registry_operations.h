// Operations on a registry, read from a fuzzer's input, and what comes of them as one text.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/support/input.h"
#include "registry/registry.h"

namespace fuzz {

struct Operation {
  std::string name;  // of the interface's method
  std::vector<std::string> arguments;
};

/// How many arguments the interface's method of that name takes; nothing if there is none.
std::optional<std::size_t> ArgumentCount(const std::string& method);

/// Takes the next operation: a field with its name, then one for each argument. Fields that name none are skipped;
/// nothing is left if there is no further one.
std::optional<Operation> TakeOperation(Input& input);

/// The result of the operation, or the kind of its exception. Exceptions that no registry should throw pass.
std::string Outcome(Registry& registry, const Operation& operation);

/// All that callers can see of a registry: its names, its values, and its JSON text.
std::string Contents(Registry& registry);

}  // namespace fuzz
