// Reads the registry with as few calls as possible.
#pragma once

#include <string>

#include "registry/registry.h"
#include "registry/registry_format.h"

namespace ledgerctl {

/// Returns the whole registry. Makes one call.
RegistrySections ReadRegistry(Registry& registry);

/// Returns a section. Makes one call, and a second one if the section has no keys, to find out whether it exists.
/// Throws Failure (Missing) if it does not.
RegistrySection ReadSection(Registry& registry, const std::string& section);

/// Throws Registry::Full if `sections` do not fit into the registry.
void CheckFits(const RegistrySections& sections);

}  // namespace ledgerctl
