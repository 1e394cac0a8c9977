// The registry's text form, which is also the byte layout of its file: "[section]" lines, each followed by the
// "key=value" lines of the section.
#pragma once

#include <map>
#include <string>

/// A section: key to value, in ascending byte order of the keys.
using RegistrySection = std::map<std::string, std::string>;

/// The registry: section name to section, in ascending byte order of the names.
using RegistrySections = std::map<std::string, RegistrySection>;

/// Returns the text form. A key whose name begins with "[" is written as it is and so is read back as a section header:
/// deliberate. The empty key name with the empty value is an empty line and so is not read back. Throws std::bad_alloc.
std::string SerialiseRegistry(const RegistrySections& sections);

/// Appends one section as it is in that text. Throws std::bad_alloc; `text` may then end in a part of it.
void AppendSection(std::string& text, const std::string& name, const RegistrySection& keys);

/// Reads a text form; every byte string parses to some registry. Lines end with CR or LF. Names are taken as they are
/// written, neither folded nor checked. A second header of the same name empties the section; a later key line of the
/// same name wins. Throws std::bad_alloc.
RegistrySections ParseRegistry(const std::string& text);
