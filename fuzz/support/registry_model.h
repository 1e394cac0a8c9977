// The expected behaviour of a registry: a second implementation of the interface, as plain as possible. Fuzzers compare
// the registry with it.
#pragma once

#include <cstddef>
#include <string>

#include "registry/registry.h"
#include "registry/registry_format.h"

namespace fuzz {

class RegistryModel : public Registry {
public:
  RegistryModel(const std::string& stored_text, std::size_t capacity);

  std::string ReadAllJson() override;
  void WriteJson(const std::string& registry) override;
  std::string Read(const std::string& section, const std::string& key) override;
  void Write(const std::string& section, const std::string& key, const std::string& value) override;
  bool KeyExists(const std::string& section, const std::string& key) override;
  bool SectionExists(const std::string& section) override;
  void DeleteKey(const std::string& section, const std::string& key) override;
  void DeleteSection(const std::string& section) override;
  void DeleteAll() override;
  void SectionList(const SectionCallback& callback) override;
  void KeyList(const std::string& section, const KeyCallback& callback) override;
  void Flush() override;

  const RegistrySections& Sections() const { return m_sections; }
  /// The text that a flush would write to the store.
  const std::string& AcceptedText() const { return m_accepted_text; }
  /// The text in the store.
  const std::string& StoredText() const { return m_stored_text; }

private:
  void Save();

  RegistrySections m_sections;
  std::string m_accepted_text;
  std::string m_stored_text;
  std::size_t m_capacity;
};

}  // namespace fuzz
