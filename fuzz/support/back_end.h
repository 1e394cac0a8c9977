// Calls to a registry without a bus, and its replies in the form of the model.
#pragma once

#include <optional>

#include "fuzz/support/fuzzer.h"
#include "registry/registry.h"

namespace fuzz {

/// Reads the next call: a field with the method, then one field for each argument. Skips fields that name no method.
/// Returns nothing if there is no further call.
std::optional<model::Call> TakeCall(Input& input);

/// Executes the call. Passes on exceptions that no registry should throw.
model::Reply Reply(Registry& registry, const model::Call& call);

/// Requires that both have the same reply to the call.
void RequireSameReply(Registry& registry, model::RegistryModel& model, const model::Call& call);

/// Requires that both have the same contents.
void RequireSameContents(Registry& registry, model::RegistryModel& model);

}  // namespace fuzz
