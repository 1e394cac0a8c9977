// The whole program, from the arguments to the exit status. Tests can run it in their own process.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/command_line.h"
#include "registry/registry.h"

namespace ledgerctl {

/// Makes the registry for the verbs.
using RegistryFactory = std::function<std::shared_ptr<Registry>(const CommandLine& command)>;

/// Runs one command line, `arguments` without the program's name, and returns the exit status. Prints errors on the
/// descriptor `error`.
int RunProgram(const std::vector<std::string>& arguments, const RegistryFactory& make_registry, int output, int error);

}  // namespace ledgerctl
