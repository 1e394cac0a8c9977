// A second implementation of the text form of the registry and of percent escaping, as plain as possible.
#pragma once

#include <map>
#include <string>

namespace model {

/// Maps names of sections to maps of keys to values.
using Sections = std::map<std::string, std::map<std::string, std::string>>;

std::string Escape(const std::string& text, const std::string& set);
std::string Unescape(const std::string& text);
std::string Serialise(const Sections& sections);
Sections Parse(const std::string& text);

/// Returns the value of a hexadecimal digit, or -1 for any other byte.
int DigitValue(char digit);

}  // namespace model
