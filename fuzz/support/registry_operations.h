// Operations on a registry, read from the input of a fuzzer, and their results as text.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/support/input.h"
#include "registry/registry.h"

namespace fuzz {

struct Operation {
  std::string name;  // the method of the interface
  std::vector<std::string> arguments;
};

/// Returns the number of arguments of the method, or nothing if the interface has no such method.
std::optional<std::size_t> ArgumentCount(const std::string& method);

/// Reads the next operation: a field with its name, then one field for each argument. Skips fields that name no method.
/// Returns nothing if there is no further operation.
std::optional<Operation> TakeOperation(Input& input);

/// Returns the result of the operation, or the kind of its exception. Passes on exceptions that no registry should
/// throw.
std::string Outcome(Registry& registry, const Operation& operation);

/// Returns everything that callers can see of a registry: its names, its values, and its JSON text.
std::string Contents(Registry& registry);

}  // namespace fuzz
