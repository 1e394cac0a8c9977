// JSON text as the program prints it.
#pragma once

#include <string>

#include "registry/registry_format.h"

namespace ledgerctl {

/// Returns a JSON string. A byte that is not UTF-8 becomes U+FFFD. The bus delivers no such byte.
std::string QuoteJson(const std::string& text);

/// Prints the registry with an object for each section, indented by two spaces for each level, with a final newline.
std::string PrintIndentedJson(const RegistrySections& sections);

/// One object of strings on one line.
std::string PrintJsonSection(const RegistrySection& section);

}  // namespace ledgerctl
