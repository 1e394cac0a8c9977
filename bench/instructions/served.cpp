#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "bench/instructions/count.h"
#include "bench/memory_store.h"
#include "bench/workload.h"
#include "dbus/registry_server.h"
#include "fuzz/support/peer_bus.h"
#include "fuzz/support/require.h"

namespace {

using fuzz::Message;
using fuzz::PeerBus;
using workload::Entries;
using workload::Entry;
using workload::kManyKeys;
using workload::Share;

// The work of libdbus before this function and of the kernel after it is not counted.
constexpr char kRoot[] = "RegistryServer::handle_message";

constexpr char kName[] = "com.tavimesh.Registry";

Message NewCall(const char* member, std::initializer_list<std::string> arguments) {
  Message call(dbus_message_new_method_call(kName, "/com/tavimesh/Registry", kName, member));
  for (const std::string& argument : arguments) {
    const char* const text = argument.c_str();
    dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
  }
  return call;
}

void CountCalls(const char* name, int calls, const std::vector<Message>& messages) {
  Count({name, calls, kRoot}, [&](int call) {
    // A message can be sent only once.
    const Message copy(dbus_message_copy(messages[static_cast<std::size_t>(call) % messages.size()].get()));
    const std::vector<Message> replies = PeerBus::Instance().Exchange(*copy);
    fuzz::Require(replies.size() == 1 && dbus_message_get_type(replies[0].get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN,
                  "a call is answered");
  });
}

void CountCalls(const char* name, int calls, const char* member, std::initializer_list<std::string> arguments) {
  std::vector<Message> messages;
  messages.push_back(NewCall(member, arguments));
  CountCalls(name, calls, messages);
}

void CountWrites(const char* name, const Entry& entry) {
  std::vector<Message> messages;
  for (const char letter : {'x', 'y'}) {
    messages.push_back(NewCall("Write", {entry.section, entry.key, std::string(entry.value.size(), letter)}));
  }
  CountCalls(name, 20, messages);
}

struct Served {
  explicit Served(std::size_t percent, std::size_t keys)
      : entry(Entries(Share(percent), keys)[keys / 2]),
        server(PeerBus::Instance().ServedEnd(),
               std::make_shared<MemoryStore>(workload::RegistryText(Share(percent), keys))) {}

  const Entry entry;
  RegistryServer server;
};

}  // namespace

void CountServed() {
  {
    const Served served(99, kManyKeys);
    CountCalls("served-Read", 100, "Read", {served.entry.section, served.entry.key});
    CountCalls("served-KeyExists", 100, "KeyExists", {served.entry.section, served.entry.key});
    CountCalls("served-KeyList", 40, "KeyList", {served.entry.section});
    CountCalls("served-ReadAllJson", 10, "ReadAllJson", {});
    CountWrites("served-Write-99", served.entry);
  }
  const Served served(25, kManyKeys / 4);
  CountWrites("served-Write-25", served.entry);
}
