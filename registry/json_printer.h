// The JSON text of a registry. The JSON library stays out of this header.
#pragma once

#include <string>

#include "registry/registry_format.h"

/// Appends `text` as a JSON string, escaped as the JSON library does. Throws a std::exception if it is not UTF-8, and
/// std::bad_alloc; `output` may then end in a part of it.
void AppendJsonString(std::string& output, const std::string& text);

/// Returns the registry as JSON: an object of objects of strings, compact, on one line. Throws std::runtime_error,
/// whose ASCII text says which section or key is meant, if a name or a value is not UTF-8.
std::string PrintJson(const RegistrySections& sections);
