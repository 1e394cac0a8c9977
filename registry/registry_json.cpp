// The JSON view of the registry: its export, and the validated merge of a JSON text.
#include <boost/thread/lock_guard.hpp>
#include <string>

#include "lib/platform/lazy_persistent_store.h"
#include "registry/json_document.h"
#include "registry/registry_back_end.h"

std::string RegistryBackEnd::ReadAllJson() {
  const boost::lock_guard<boost::recursive_mutex> guard(m_lock);
  return PrintJson(m_sections);
}

void RegistryBackEnd::WriteJson(const std::string& registry) {
  ImportJson(registry);
  Save();
  // An import is never left pending, even one that named nothing.
  Flush();
}

// The parsed document is gone before the registry is saved: it can be large.
void RegistryBackEnd::ImportJson(const std::string& registry) {
  const JsonDocument document = JsonDocument::Parse(registry);
  if (!document.IsObject()) {
    throw InvalidJson(registry);
  }
  ValidateJson(document);
  try {
    MergeJson(document);
  } catch (...) {
    Load();
    throw;
  }
}

// Throws for the first bad entry in ascending order of the names; the registry is not touched.
void RegistryBackEnd::ValidateJson(const JsonDocument& document) {
  for (std::size_t s = 0; s < document.SectionCount(); ++s) {
    const JsonDocument::Section section = document.SectionAt(s);
    NormaliseName(std::string(section.name));
    if (section.kind == JsonDocument::Kind::Refused) {
      throw InvalidJson(std::string(section.text));
    }
    for (std::size_t k = 0; k < section.key_count; ++k) {
      const JsonDocument::Member key = document.KeyAt(section, k);
      NormaliseName(std::string(key.name));
      if (key.kind == JsonDocument::Kind::Refused) {
        throw InvalidJson(std::string(key.text));
      }
    }
  }
}

// Names that differ only in case act on the same section or key, one after the other.
void RegistryBackEnd::MergeJson(const JsonDocument& document) {
  for (std::size_t s = 0; s < document.SectionCount(); ++s) {
    const JsonDocument::Section section = document.SectionAt(s);
    const std::string section_name = NormaliseName(std::string(section.name));
    if (section.kind == JsonDocument::Kind::Null) {
      m_sections.erase(section_name);
      continue;
    }
    for (std::size_t k = 0; k < section.key_count; ++k) {
      const JsonDocument::Member key = document.KeyAt(section, k);
      const std::string key_name = NormaliseName(std::string(key.name));
      if (key.kind == JsonDocument::Kind::Accepted) {
        m_sections[section_name][key_name] = key.text;
        continue;
      }
      const auto existing = m_sections.find(section_name);
      if (existing != m_sections.end()) {
        existing->second.erase(key_name);
      }
    }
  }
}
