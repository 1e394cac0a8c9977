// The registry's text form and percent escaping, written down a second time and as plainly as possible.
#pragma once

#include <string>

#include "registry/registry_format.h"

namespace fuzz {

std::string ModelEscape(const std::string& text, const std::string& set);
std::string ModelUnescape(const std::string& text);
std::string ModelSerialise(const RegistrySections& sections);
RegistrySections ModelParse(const std::string& text);

/// Whether the text form of the table reads back as the same table. Two kinds of key do not: one whose name begins with
/// "[", and the empty name with the empty value.
bool SurvivesReload(const RegistrySections& sections);

}  // namespace fuzz
