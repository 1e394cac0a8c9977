// The table of the registry, with its text form. The back end owns one and calls it while holding its lock.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "registry/registry_format.h"

/// Caches the text of each section and regenerates only the texts of changed sections. The table can be changed only by
/// these operations, so a cached text is never stale, even after a change that failed halfway. Names are neither folded
/// nor checked. All operations throw std::bad_alloc; a change may then be incomplete.
class RegistryTable {
public:
  RegistryTable() = default;
  explicit RegistryTable(RegistrySections sections) : m_sections(std::move(sections)) {}

  const RegistrySections& Sections() const { return m_sections; }

  /// Does nothing if the section exists.
  void AddSection(const std::string& section);

  /// Creates or overwrites the key, and creates its section if it does not exist.
  void SetKey(const std::string& section, const std::string& key, std::string_view value);

  /// Returns whether the key existed. Erasing the last key of a section does not erase the section.
  bool EraseKey(const std::string& section, const std::string& key);

  /// Returns whether the section existed.
  bool EraseSection(const std::string& section);

  /// Returns the result of SerialiseRegistry for the sections.
  std::string Text();

private:
  // The only function that returns a table that can be changed. Drops the cached text of `section`.
  RegistrySections& Changing(const std::string& section);

  RegistrySections m_sections;
  // Cached texts by section name. An empty cached text must be regenerated: the text form of a section is never empty.
  // The memory of a text is reused. Otherwise the many small blocks between the large blocks of whole texts would make
  // the heap grow.
  std::map<std::string, std::string> m_texts;
  std::size_t m_text_size = 0;  // the size of the last text, a hint for the next one
};
