// A second implementation of the text form of the registry and of percent escaping, as plain as possible.
#pragma once

#include <string>

#include "registry/registry_format.h"

namespace fuzz {

std::string ModelEscape(const std::string& text, const std::string& set);
std::string ModelUnescape(const std::string& text);
std::string ModelSerialise(const RegistrySections& sections);
RegistrySections ModelParse(const std::string& text);

/// Whether the text form of the table reads back as the same table. Two kinds of keys do not: a key whose name begins
/// with "[", and a key with an empty name and an empty value.
bool SurvivesReload(const RegistrySections& sections);

}  // namespace fuzz
