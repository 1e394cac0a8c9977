#include "fuzz/support/registry_model.h"

#include <stdexcept>

#include "fuzz/support/json_model.h"
#include "fuzz/support/text_model.h"

namespace fuzz {
namespace {

std::string Fold(const std::string& name) {
  std::string folded;
  for (const char byte : name) {
    if ((byte & 0x80) != 0) {
      throw Registry::InvalidName(name);
    }
    folded += byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte + 32) : byte;
  }
  return folded;
}

// Throws for the first invalid entry, in ascending order of the names as written.
void Validate(const JsonValue& document) {
  if (document.kind != JsonValue::Kind::Object) {
    throw Registry::InvalidJson("");
  }
  for (const auto& section : document.members) {
    Fold(section.first);
    if (section.second.kind != JsonValue::Kind::Object && section.second.kind != JsonValue::Kind::Null) {
      throw Registry::InvalidJson("");
    }
    for (const auto& key : section.second.members) {
      Fold(key.first);
      if (key.second.kind != JsonValue::Kind::String && key.second.kind != JsonValue::Kind::Null) {
        throw Registry::InvalidJson("");
      }
    }
  }
}

void Merge(RegistrySections& sections, const JsonValue& document) {
  for (const auto& [section_as_written, section] : document.members) {
    const std::string name = Fold(section_as_written);
    if (section.kind == JsonValue::Kind::Null) {
      sections.erase(name);
      continue;
    }
    for (const auto& [key_as_written, key] : section.members) {
      if (key.kind == JsonValue::Kind::String) {
        sections[name][Fold(key_as_written)] = key.text;
      } else if (sections.count(name) != 0) {
        sections[name].erase(Fold(key_as_written));
      }
    }
  }
}

}  // namespace

RegistryModel::RegistryModel(const std::string& stored_text, std::size_t capacity)
    : m_sections(ModelParse(stored_text)),
      m_accepted_text(stored_text),
      m_stored_text(stored_text),
      m_capacity(capacity) {}

std::string RegistryModel::ReadAllJson() {
  if (const auto json = ModelPrintJson(m_sections)) {
    return *json;
  }
  throw std::runtime_error("No JSON: ");
}

void RegistryModel::WriteJson(const std::string& registry) {
  const auto document = ModelParseJson(registry);
  if (!document) {
    throw std::runtime_error("parse error - unexpected ");
  }
  Validate(*document);
  Merge(m_sections, *document);
  Save();
  Flush();
}

std::string RegistryModel::Read(const std::string& section, const std::string& key) {
  return KeyExists(section, key) ? m_sections[Fold(section)][Fold(key)] : "";
}

void RegistryModel::Write(const std::string& section, const std::string& key, const std::string& value) {
  m_sections[Fold(section)];
  m_sections[Fold(section)][Fold(key)] = value;
  Save();
}

bool RegistryModel::KeyExists(const std::string& section, const std::string& key) {
  return SectionExists(section) && m_sections[Fold(section)].count(Fold(key)) != 0;
}

bool RegistryModel::SectionExists(const std::string& section) { return m_sections.count(Fold(section)) != 0; }

void RegistryModel::DeleteKey(const std::string& section, const std::string& key) {
  if (KeyExists(section, key)) {
    m_sections[Fold(section)].erase(Fold(key));
    Save();
  }
}

void RegistryModel::DeleteSection(const std::string& section) {
  if (SectionExists(section)) {
    m_sections.erase(Fold(section));
    Save();
  }
}

void RegistryModel::DeleteAll() {
  m_sections.clear();
  Save();
}

void RegistryModel::SectionList(const SectionCallback& callback) {
  for (const auto& section : m_sections) {
    callback(section.first);
  }
}

void RegistryModel::KeyList(const std::string& section, const KeyCallback& callback) {
  if (SectionExists(section)) {
    for (const auto& key : m_sections[Fold(section)]) {
      callback(key.first, key.second);
    }
  }
}

void RegistryModel::Flush() { m_stored_text = m_accepted_text; }

void RegistryModel::Save() {
  const std::string text = ModelSerialise(m_sections);
  if (text.size() > m_capacity) {
    m_sections = ModelParse(m_accepted_text);
    throw Full();
  }
  m_accepted_text = text;
}

}  // namespace fuzz
