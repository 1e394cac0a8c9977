// Runs each hot operation a fixed number of times on fixed data.
//
//   valgrind --tool=callgrind --toggle-collect=RegistryServer::handle_message* ledgerd_count_instructions [--copy-more]
//
// Only the instructions of the operations are counted. callgrind writes them under the name of the operation. The
// program prints "NAME CALLS" for each. With --copy-more each call also copies a text byte by byte: a slow-down that
// the comparison of the counts must report.
#include <valgrind/callgrind.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "dbus/registry_server.h"
#include "fuzz/support/fuzzer.h"
#include "fuzz/support/peer_bus.h"
#include "lib/platform/escape.h"
#include "lib/platform/persistent_store.h"
#include "registry/registry_back_end.h"
#include "registry/registry_format.h"

namespace {

constexpr int kWarmUpCalls = 4;
constexpr std::size_t kManyKeys = 500;
constexpr std::size_t kKeysPerSection = 50;

// It is cheap, so that almost all counted instructions are those of its user.
class MemoryStore : public PersistentStore {
public:
  explicit MemoryStore(std::string text) : m_text(std::move(text)) {}
  std::string Read() override { return m_text; }
  void Write(const std::string& text) override { m_text = text; }
  std::uint32_t Capacity() override { return kRegistryCapacity; }

private:
  std::string m_text;
};

struct Entry {
  std::string section;
  std::string key;
  std::string value;
};

// A registry with that many keys, whose text fills a share of the capacity.
struct Workload {
  Workload(std::size_t percent, std::size_t keys) {
    const std::size_t names =
        (keys + kKeysPerSection - 1) / kKeysPerSection * std::strlen("[s000]\n") + keys * std::strlen("k000=\n");
    const std::size_t values = kRegistryCapacity * percent / 100 - names;
    for (std::size_t key = 0; key < keys; ++key) {
      // The first keys share the remainder of the division.
      const std::size_t length = values / keys + (key < values % keys ? 1 : 0);
      entries.push_back(
          {Name('s', key / kKeysPerSection), Name('k', key), std::string(length, static_cast<char>('a' + key % 26))});
      text += key % kKeysPerSection == 0 ? "[" + entries.back().section + "]\n" : "";
      text += entries.back().key + "=" + entries.back().value + "\n";
    }
  }

  static std::string Name(char kind, std::size_t number) { return kind + std::to_string(1000 + number).substr(1); }

  std::shared_ptr<PersistentStore> NewStore() const { return std::make_shared<MemoryStore>(text); }
  const Entry& Middle() const { return entries[entries.size() / 2]; }

  std::vector<Entry> entries;
  std::string text;
};

bool g_copy_more = false;

[[gnu::noinline]] std::string CopyOnceMore() {
  static const std::string text(kRegistryCapacity, 'c');
  std::string copy;
  for (const char byte : text) {
    copy += byte;
  }
  return copy;
}

enum class Counted { Operation, HandledMessage };

// Calls `operation` a few times without counting it, then `calls` times, and prints a line. `calls` is even, because
// operations that change something alternate between two values. The argument of `operation` is the number of the call.
void Count(const char* name, int calls, const std::function<void(int)>& operation,
           Counted counted = Counted::Operation) {
  for (int call = 0; call < kWarmUpCalls; ++call) {
    operation(call);
  }
  CALLGRIND_ZERO_STATS;
  if (counted == Counted::Operation) {
    CALLGRIND_TOGGLE_COLLECT;
  }
  for (int call = 0; call < calls; ++call) {
    operation(call);
    if (g_copy_more) {
      CopyOnceMore();
    }
  }
  if (counted == Counted::Operation) {
    CALLGRIND_TOGGLE_COLLECT;
  }
  CALLGRIND_DUMP_STATS_AT(name);
  std::printf("%s %d\n", name, calls);
}

void CountReads(const Workload& full) {
  RegistryBackEnd registry(full.NewStore());
  const auto entry = [&](int call) -> const Entry& {
    return full.entries[static_cast<std::size_t>(call) * 37 % full.entries.size()];
  };
  Count("Read", 200, [&](int call) { registry.Read(entry(call).section, entry(call).key); });
  Count("KeyExists", 200, [&](int call) { registry.KeyExists(entry(call).section, entry(call).key); });
  Count("KeyList", 40, [&](int) { registry.KeyList(full.Middle().section); });
  Count("ReadAllJson", 10, [&](int) { registry.ReadAllJson(); });
}

void CountWrite(const char* name, const Workload& workload) {
  RegistryBackEnd registry(workload.NewStore());
  const auto& [section, key, value] = workload.Middle();
  const std::string values[] = {std::string(value.size(), 'x'), std::string(value.size(), 'y')};
  Count(name, 20, [&, &section = section, &key = key](int call) { registry.Write(section, key, values[call % 2]); });
}

void CountWriteJson(const Workload& full) {
  RegistryBackEnd registry(full.NewStore());
  const std::string texts[] = {R"({"s003":{"k150":"one","k151":"two"},"s007":{"k350":"three"}})",
                               R"({"s003":{"k150":"two","k151":"one"},"s007":{"k350":"four!"}})"};
  Count("WriteJson", 20, [&](int call) { registry.WriteJson(texts[call % 2]); });
  const std::string one_key[] = {R"({"s003":{"k150":"one"}})", R"({"s003":{"k150":"two"}})"};
  Count("WriteJson-one-key", 20, [&](int call) { registry.WriteJson(one_key[call % 2]); });
}

void CountText(const Workload& full) {
  const RegistrySections sections = ParseRegistry(full.text);
  Count("serialise", 20, [&](int) { SerialiseRegistry(sections); });
  Count("parse", 10, [&](int) { ParseRegistry(full.text); });
  std::string value(1024, 'v');
  for (std::size_t i = 0; i < value.size(); i += 16) {
    value[i] = '%';
  }
  const std::string escaped = escape::EscapeCopy(value, "%\r\n");
  Count("escape", 40, [&](int) { escape::EscapeCopy(value, "%\r\n"); });
  Count("unescape", 40, [&](int) { escape::UnescapeCopy(escaped); });
}

// Counts the served object's share: not the work of libdbus before it and of the kernel after it.
void CountServed(const char* name, int calls, const std::vector<model::Call>& alternating) {
  const auto exchange = [&](int call) {
    const auto message = NewCall(alternating[static_cast<std::size_t>(call) % alternating.size()]);
    const std::vector<Message> replies = fuzz::PeerBus::Instance().Exchange(*message);
    fuzz::Require(replies.size() == 1 && dbus_message_get_type(replies[0].get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN,
                  "a call is answered");
  };
  Count(name, calls, exchange, Counted::HandledMessage);
}

void CountServedWrite(const char* name, const Workload& workload) {
  const RegistryServer server(fuzz::PeerBus::Instance().ServedEnd(), workload.NewStore());
  const auto& [section, key, value] = workload.Middle();
  CountServed(name, 20,
              {{"Write", {section, key, std::string(value.size(), 'x')}},
               {"Write", {section, key, std::string(value.size(), 'y')}}});
}

void CountServedReads(const Workload& full) {
  const RegistryServer server(fuzz::PeerBus::Instance().ServedEnd(), full.NewStore());
  const auto& [section, key, value] = full.Middle();
  CountServed("served-Read", 100, {{"Read", {section, key}}});
  CountServed("served-KeyExists", 100, {{"KeyExists", {section, key}}});
  CountServed("served-KeyList", 40, {{"KeyList", {section}}});
  CountServed("served-ReadAllJson", 10, {{"ReadAllJson", {}}});
}

}  // namespace

int main(int argc, char** argv) {
  g_copy_more = argc > 1 && std::strcmp(argv[1], "--copy-more") == 0;
  const Workload full(99, kManyKeys), quarter(25, kManyKeys / 4);
  CountReads(full);
  CountWrite("Write-25", quarter);
  CountWrite("Write-99", full);
  CountWriteJson(full);
  CountText(full);
  CountServedReads(full);
  CountServedWrite("served-Write-99", full);
  CountServedWrite("served-Write-25", quarter);
}
