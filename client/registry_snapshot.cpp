#include "client/registry_snapshot.h"

#include "client/failure.h"
#include "client/quote_word.h"
#include "registry/json_document.h"

namespace ledgerctl {

RegistrySections ReadRegistry(Registry& registry) {
  const std::string json = registry.ReadAllJson();
  const JsonDocument document = JsonDocument::Parse(json);
  RegistrySections sections;
  for (const JsonMember& section : document.Sections()) {
    RegistrySection& keys = sections[std::string(document.NameOf(section))];
    for (const JsonMember& key : document.KeysOf(section)) {
      keys.emplace(document.NameOf(key), document.ValueOf(key));
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
  if (SerialiseRegistry(sections).size() > kRegistryCapacity) {
    throw Registry::Full();
  }
}

}  // namespace ledgerctl
