// The text form of the registry, which is also the format of its file: "[section]" lines, each followed by the
// "key=value" lines of the section.
#pragma once

#include <map>
#include <string>

/// A section: maps keys to values, in ascending byte order of the keys.
using RegistrySection = std::map<std::string, std::string>;

/// The registry: maps names to sections, in ascending byte order of the names.
using RegistrySections = std::map<std::string, RegistrySection>;

/// Returns the text form. Two quirks are deliberate: a key whose name begins with "[" is written unchanged and
/// therefore read back as a section header; an empty key name with an empty value becomes an empty line, which is not
/// read back. Throws std::bad_alloc.
std::string SerialiseRegistry(const RegistrySections& sections);

/// Appends the text form of one section. Throws std::bad_alloc; `text` may then end with a part of the section.
void AppendSection(std::string& text, const std::string& name, const RegistrySection& keys);

/// Parses a text form. Every byte string is valid. Lines end with CR or LF. Names are neither folded nor checked. A
/// second header of a section empties it. The last line of a key wins. Throws std::bad_alloc.
RegistrySections ParseRegistry(const std::string& text);
