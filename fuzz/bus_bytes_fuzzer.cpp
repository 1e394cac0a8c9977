// Fuzzer of the served registry: sends it one D-Bus message, made of any bytes that libdbus accepts as a message.
#include <memory>
#include <string>

#include "dbus/registry_server.h"
#include "fuzz/support/bus_model.h"
#include "fuzz/support/fuzzer.h"
#include "tests/unit/support/stores.h"

void fuzz::Run(Input input) {
  const std::string bytes = input.TakeRest();
  const Message read(dbus_message_demarshal(bytes.data(), static_cast<int>(bytes.size()), nullptr));
  if (read == nullptr || dbus_message_contains_unix_fds(read.get())) {
    return;
  }
  // A copy gets a new serial number when it is sent.
  const Message message(dbus_message_copy(read.get()));
  const std::string stored_text = "[net]\nip=10.0.0.1\n[s]\nk=v\n";
  PeerBus& bus = PeerBus::Instance();
  RegistryServer server(bus.ServedEnd(), std::make_shared<test_support::RecordingStore>(stored_text));
  model::RegistryModel model(stored_text);
  RequireAnswered(bus, model, *message);
  RequireContents(bus, model);
}
