#include <memory>
#include <string>
#include <vector>

#include "bench/instructions/count.h"
#include "bench/memory_store.h"
#include "bench/workload.h"
#include "lib/platform/escape.h"
#include "registry/registry_back_end.h"
#include "registry/registry_format.h"

namespace {

using workload::Entry;
using workload::kManyKeys;
using workload::RegistryText;
using workload::Share;

RegistryBackEnd Registry(std::size_t percent, std::size_t keys) {
  return RegistryBackEnd(std::make_shared<MemoryStore>(RegistryText(Share(percent), keys)));
}

void CountWrite(const char* name, std::size_t percent, std::size_t keys) {
  RegistryBackEnd registry = Registry(percent, keys);
  const Entry changed = workload::Entries(Share(percent), keys)[keys / 2];
  const std::string values[] = {std::string(changed.value.size(), 'x'), std::string(changed.value.size(), 'y')};
  Count({name, 20}, [&](int call) { registry.Write(changed.section, changed.key, values[call % 2]); });
}

void CountReads() {
  RegistryBackEnd registry = Registry(99, kManyKeys);
  const std::vector<Entry> entries = workload::Entries(Share(99), kManyKeys);
  const auto entry = [&](int call) -> const Entry& { return entries[static_cast<std::size_t>(call) * 37 % kManyKeys]; };
  Count({"Read", 200}, [&](int call) { registry.Read(entry(call).section, entry(call).key); });
  Count({"KeyExists", 200}, [&](int call) { registry.KeyExists(entry(call).section, entry(call).key); });
  Count({"KeyList", 40}, [&](int) { registry.KeyList(entries[kManyKeys / 2].section); });
  Count({"ReadAllJson", 10}, [&](int) { registry.ReadAllJson(); });
}

void CountWriteJson() {
  RegistryBackEnd registry = Registry(99, kManyKeys);
  const std::string texts[] = {R"({"s003":{"k150":"one","k151":"two"},"s007":{"k350":"three"}})",
                               R"({"s003":{"k150":"two","k151":"one"},"s007":{"k350":"four!"}})"};
  Count({"WriteJson", 20}, [&](int call) { registry.WriteJson(texts[call % 2]); });
  const std::string one_key[] = {R"({"s003":{"k150":"one"}})", R"({"s003":{"k150":"two"}})"};
  Count({"WriteJson-one-key", 20}, [&](int call) { registry.WriteJson(one_key[call % 2]); });
}

void CountText() {
  const std::string text = RegistryText(Share(99), kManyKeys);
  const RegistrySections sections = ParseRegistry(text);
  Count({"serialise", 20}, [&](int) { SerialiseRegistry(sections); });
  Count({"parse", 10}, [&](int) { ParseRegistry(text); });
  const std::string value = workload::ValueToEscape(1024);
  const std::string escaped = escape::EscapeCopy(value, "%\r\n");
  Count({"escape", 40}, [&](int) { escape::EscapeCopy(value, "%\r\n"); });
  Count({"unescape", 40}, [&](int) { escape::UnescapeCopy(escaped); });
}

}  // namespace

void CountInProcess() {
  CountReads();
  CountWrite("Write-25", 25, kManyKeys / 4);
  CountWrite("Write-99", 99, kManyKeys);
  CountWriteJson();
  CountText();
}
