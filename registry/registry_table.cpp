#include "registry/registry_table.h"

void RegistryTable::AddSection(const std::string& section) {
  if (m_sections.count(section) == 0) {
    Changing(section)[section];
  }
}

void RegistryTable::SetKey(const std::string& section, const std::string& key, std::string_view value) {
  Changing(section)[section][key] = value;
}

bool RegistryTable::EraseKey(const std::string& section, const std::string& key) {
  RegistrySections& sections = Changing(section);
  const auto found = sections.find(section);
  return found != sections.end() && found->second.erase(key) != 0;
}

bool RegistryTable::EraseSection(const std::string& section) { return Changing(section).erase(section) != 0; }

std::string RegistryTable::Text() {
  std::string text;
  text.reserve(m_text_size);
  // Both maps have the same order, and every section that has a text exists.
  auto kept = m_texts.begin();
  for (const auto& [name, keys] : m_sections) {
    if (kept != m_texts.end() && kept->first == name) {
      text += kept->second;
    } else {
      const std::size_t begin = text.size();
      AppendSection(text, name, keys);
      kept = m_texts.emplace_hint(kept, name, text.substr(begin));
    }
    ++kept;
  }
  m_text_size = text.size();
  return text;
}

RegistrySections& RegistryTable::Changing(const std::string& section) {
  m_texts.erase(section);
  return m_sections;
}
