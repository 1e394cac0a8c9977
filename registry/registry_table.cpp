#include "registry/registry_table.h"

void RegistryTable::AddSection(const std::string& section) { Changing(section)[section]; }

void RegistryTable::SetKey(const std::string& section, const std::string& key, std::string_view value) {
  Changing(section)[section][key] = value;
}

bool RegistryTable::EraseKey(const std::string& section, const std::string& key) {
  RegistrySections& sections = Changing(section);
  const auto found = sections.find(section);
  return found != sections.end() && found->second.erase(key) != 0;
}

bool RegistryTable::EraseSection(const std::string& section) {
  const bool existed = Changing(section).erase(section) != 0;
  m_texts.erase(section);
  return existed;
}

std::string RegistryTable::Text() {
  std::string text;
  text.reserve(m_text_size);
  auto kept = m_texts.begin();
  for (const auto& [name, keys] : m_sections) {
    kept = m_texts.try_emplace(kept, name);  // both maps have the same order
    if (kept->second.empty()) {
      const std::size_t begin = text.size();
      AppendSection(text, name, keys);
      kept->second.assign(text, begin);
    } else {
      text += kept->second;
    }
    ++kept;
  }
  m_text_size = text.size();
  return text;
}

RegistrySections& RegistryTable::Changing(const std::string& section) {
  if (const auto kept = m_texts.find(section); kept != m_texts.end()) {
    kept->second.clear();
  }
  return m_sections;
}
