// Prints a registry as JSON.
#pragma once

#include <string>

#include "registry/registry_format.h"

/// Appends `text` as a JSON string, escaped like in the JSON library. Throws a std::exception if `text` is not UTF-8,
/// and std::bad_alloc; `output` may then end with a part of the string.
void AppendJsonString(std::string& output, const std::string& text);

/// Returns the registry as one line of JSON without whitespace. Each section is an object whose values are strings.
/// Throws std::runtime_error if a name or value is not UTF-8; its ASCII text names the section or key.
std::string PrintJson(const RegistrySections& sections);
