// The JSON view of the registry: its export, and the validated merge of a JSON text.
#include <boost/thread/lock_guard.hpp>
#include <string>

#include "lib/platform/lazy_persistent_store.h"
#include "registry/json_document.h"
#include "registry/json_printer.h"
#include "registry/registry_back_end.h"

std::string RegistryBackEnd::ReadAllJson() {
  const boost::lock_guard<boost::recursive_mutex> guard(m_lock);
  return PrintJson(Sections());
}

void RegistryBackEnd::WriteJson(const std::string& registry) {
  ImportJson(registry);
  Save();
  // An import is never left pending, even one that named nothing.
  Flush();
}

// The parsed document is gone before the registry is saved: it can be large.
void RegistryBackEnd::ImportJson(const std::string& registry) {
  JsonDocument document = JsonDocument::Parse(registry);
  if (!document.IsObject()) {
    throw InvalidJson(registry);
  }
  ValidateJson(document);
  document.NormaliseNames(NormaliseName);
  try {
    MergeJson(document);
  } catch (...) {
    RollBack();
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

// Members whose names differ only in case act on the same section or key, one after the other. A document can name far
// more than the registry holds: when the members that nothing later can touch are already too long, the rest is left
// out, and the save refuses the registry all the same.
void RegistryBackEnd::MergeJson(const JsonDocument& document) {
  std::size_t certain_size = 0;
  for (std::size_t s = 0; s < document.SectionCount() && certain_size <= m_store->Capacity(); ++s) {
    const JsonDocument::Section section = document.SectionAt(s);
    const bool is_last_of_name = s + 1 == document.SectionCount() || document.SectionAt(s + 1).name != section.name;
    certain_size += MergeJsonSection(document, section, is_last_of_name);
  }
}

// Returns how many bytes of the registry's text are certain to stay if nothing later has the section's name.
std::size_t RegistryBackEnd::MergeJsonSection(const JsonDocument& document, const JsonDocument::Section& section,
                                              bool is_last_of_name) {
  RegistryTable& table = Table();
  const std::string section_name(section.name);
  if (section.kind == JsonDocument::Kind::Null) {
    table.EraseSection(section_name);
    return 0;
  }
  std::size_t certain_size = 0;
  for (std::size_t k = 0; k < section.key_count && certain_size <= m_store->Capacity(); ++k) {
    const JsonDocument::Member key = document.KeyAt(section, k);
    if (key.kind == JsonDocument::Kind::Accepted) {
      table.SetKey(section_name, std::string(key.name), key.text);
      if (is_last_of_name && (k + 1 == section.key_count || document.KeyAt(section, k + 1).name != key.name)) {
        certain_size += key.name.size() + key.text.size() + 1;
      }
    } else {
      table.EraseKey(section_name, std::string(key.name));
    }
  }
  // The header too: its brackets and line feed.
  return certain_size == 0 ? 0 : section.name.size() + 3 + certain_size;
}
