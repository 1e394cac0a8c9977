// The registry's contents, read by as few calls as there can be.
#pragma once

#include <string>

#include "registry/registry.h"
#include "registry/registry_format.h"

namespace ledgerctl {

/// The whole registry, by one call.
RegistrySections ReadRegistry(Registry& registry);

/// A section by one call; by two if it is empty, to tell that from missing. Throws Failure (Missing).
RegistrySection ReadSection(Registry& registry, const std::string& section);

/// Throws Registry::Full if the registry could not hold them.
void CheckFits(const RegistrySections& sections);

}  // namespace ledgerctl
