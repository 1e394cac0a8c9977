// Reads the registry by the minimum of calls.
#pragma once

#include <string>

#include "registry/registry.h"
#include "registry/registry_format.h"

namespace ledgerctl {

/// The whole registry, by one call.
RegistrySections ReadRegistry(Registry& registry);

/// A section by one call, or by two if it is empty, because it can also be missing. Throws Failure (Missing).
RegistrySection ReadSection(Registry& registry, const std::string& section);

/// Throws Registry::Full if the registry could not hold them.
void CheckFits(const RegistrySections& sections);

}  // namespace ledgerctl
