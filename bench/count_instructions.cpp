// Runs each hot operation a fixed number of times on fixed data, for callgrind: instructions are collected within the
// calls only, and written out under the operation's name.
//
//   valgrind --tool=callgrind --collect-atstart=no ledgerd_count_instructions [--copy-more]
//
// Prints "operation calls" for each. Outside of valgrind it does the same work uncounted. With --copy-more each call
// copies some text besides, byte by byte: a slow-down that the comparison of the counts must report.
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

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

constexpr int kWarmUpCalls = 4;

bool g_copy_more = false;

[[gnu::noinline]] std::string CopyOnceMore() {
  static const std::string text(workload::kCapacity, 'c');
  std::string copy;
  for (const char byte : text) {
    copy += byte;
  }
  return copy;
}

// `operation` gets the number of the call. Even numbers of calls: those that change something take turns in two values.
void Count(const char* name, int calls, const std::function<void(int)>& operation) {
  for (int call = 0; call < kWarmUpCalls; ++call) {
    operation(call);
  }
  CALLGRIND_TOGGLE_COLLECT;
  for (int call = 0; call < calls; ++call) {
    operation(call);
    if (g_copy_more) {
      CopyOnceMore();
    }
  }
  CALLGRIND_TOGGLE_COLLECT;
  CALLGRIND_DUMP_STATS_AT(name);
  std::printf("%s %d\n", name, calls);
}

RegistryBackEnd Registry(std::size_t percent, std::size_t keys) {
  return RegistryBackEnd(std::make_shared<MemoryStore>(RegistryText(Share(percent), keys)));
}

void CountWrite(const char* name, std::size_t percent, std::size_t keys) {
  RegistryBackEnd registry = Registry(percent, keys);
  const Entry changed = workload::Entries(Share(percent), keys)[keys / 2];
  const std::string values[] = {std::string(changed.value.size(), 'x'), std::string(changed.value.size(), 'y')};
  Count(name, 20, [&](int call) { registry.Write(changed.section, changed.key, values[call % 2]); });
}

void CountReads() {
  RegistryBackEnd registry = Registry(99, kManyKeys);
  const std::vector<Entry> entries = workload::Entries(Share(99), kManyKeys);
  const auto entry = [&](int call) -> const Entry& { return entries[static_cast<std::size_t>(call) * 37 % kManyKeys]; };
  Count("Read", 200, [&](int call) { registry.Read(entry(call).section, entry(call).key); });
  Count("KeyExists", 200, [&](int call) { registry.KeyExists(entry(call).section, entry(call).key); });
  Count("KeyList", 40, [&](int) { registry.KeyList(entries[kManyKeys / 2].section); });
  Count("ReadAllJson", 10, [&](int) { registry.ReadAllJson(); });
}

void CountWriteJson() {
  RegistryBackEnd registry = Registry(99, kManyKeys);
  const std::string texts[] = {R"({"s003":{"k150":"one","k151":"two"},"s007":{"k350":"three"}})",
                               R"({"s003":{"k150":"two","k151":"one"},"s007":{"k350":"four!"}})"};
  Count("WriteJson", 20, [&](int call) { registry.WriteJson(texts[call % 2]); });
}

void CountText() {
  const std::string text = RegistryText(Share(99), kManyKeys);
  const RegistrySections sections = ParseRegistry(text);
  Count("serialise", 20, [&](int) { SerialiseRegistry(sections); });
  Count("parse", 10, [&](int) { ParseRegistry(text); });
  const std::string value = workload::ValueToEscape(1024);
  const std::string escaped = escape::EscapeCopy(value, "%\r\n");
  Count("escape", 40, [&](int) { escape::EscapeCopy(value, "%\r\n"); });
  Count("unescape", 40, [&](int) { escape::UnescapeCopy(escaped); });
}

}  // namespace

int main(int argc, char** argv) {
  g_copy_more = argc > 1 && std::strcmp(argv[1], "--copy-more") == 0;
  CountReads();
  CountWrite("Write-25", 25, kManyKeys / 4);
  CountWrite("Write-99", 99, kManyKeys);
  CountWriteJson();
  CountText();
}
