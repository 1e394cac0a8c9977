// The registry's table together with its text form. The back end owns one and calls it under its lock.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "registry/registry_format.h"

/// Keeps the text of each section and makes anew only the text of those that were changed. There is no way to change
/// the table past the operations here, so a kept text is never stale, not even after a change that failed half way.
/// Names are neither folded nor checked. All operations throw std::bad_alloc; a change may then be done in part.
class RegistryTable {
public:
  RegistryTable() = default;
  explicit RegistryTable(RegistrySections sections) : m_sections(std::move(sections)) {}

  const RegistrySections& Sections() const { return m_sections; }

  /// Does nothing if the section exists.
  void AddSection(const std::string& section);

  /// Creates or overwrites the key, and creates its section if it does not exist.
  void SetKey(const std::string& section, const std::string& key, std::string_view value);

  /// Returns whether the key existed. The section stays when its last key is erased.
  bool EraseKey(const std::string& section, const std::string& key);

  /// Returns whether the section existed.
  bool EraseSection(const std::string& section);

  /// Returns what SerialiseRegistry returns for the sections.
  std::string Text();

private:
  // The only way to a table that can be changed: drops the text of the section that is about to change.
  RegistrySections& Changing(const std::string& section);

  RegistrySections m_sections;
  // By section; empty, as no section's text is, if it is to be made anew. The memory of a text is used again, or the
  // many small blocks between the large ones of the whole text would make the heap grow.
  std::map<std::string, std::string> m_texts;
  std::size_t m_text_size = 0;  // what Text returned last; the next text is about as long
};
