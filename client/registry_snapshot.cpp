#include "client/registry_merge.h"
#include "client/text_form.h"
#include "client/verbs.h"
#include "registry/json_document.h"

namespace ledgerctl {

RegistrySections ReadRegistry(Registry& registry) {
  const JsonDocument document = JsonDocument::Parse(registry.ReadAllJson());
  RegistrySections sections;
  for (std::size_t s = 0; s < document.SectionCount(); ++s) {
    const JsonDocument::Section section = document.SectionAt(s);
    RegistrySection& keys = sections[std::string(section.name)];
    for (std::size_t k = 0; k < section.key_count; ++k) {
      const JsonDocument::Member key = document.KeyAt(section, k);
      keys.emplace_hint(keys.end(), key.name, key.text);
    }
  }
  return sections;
}

RegistrySection ReadSection(Registry& registry, const std::string& section) {
  RegistrySection keys;
  registry.KeyList(section, [&](const std::string& key, const std::string& value) { keys[key] = value; });
  if (keys.empty() && !registry.SectionExists(section)) {
    throw Failure(ExitStatus::Missing, "no " + ShownSection(section));
  }
  return keys;
}

void CheckFits(const RegistrySections& sections) {
  if (SerialiseRegistry(sections).size() > kCapacity) {
    throw Registry::Full();
  }
}

}  // namespace ledgerctl
