// Fuzzer of the served registry: sends it one D-Bus message, made of any bytes that libdbus accepts as a message.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "dbus/registry_server.h"
#include "fuzz/support/bus_model.h"
#include "fuzz/support/require.h"
#include "tests/unit/support/stores.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::Message read(
      dbus_message_demarshal(reinterpret_cast<const char*>(data), static_cast<int>(size), nullptr));
  if (read == nullptr || dbus_message_contains_unix_fds(read.get())) {
    return 0;
  }
  // A copy gets a new serial number when it is sent.
  const fuzz::Message message(dbus_message_copy(read.get()));
  const std::string stored_text = "[net]\nip=10.0.0.1\n[s]\nk=v\n";
  fuzz::PeerBus& bus = fuzz::PeerBus::Instance();
  RegistryServer server(bus.ServedEnd(), std::make_shared<test_support::RecordingStore>(stored_text));
  fuzz::RegistryModel model(stored_text, 16383);
  fuzz::RequireAnswered(bus, model, *message);
  fuzz::RequireContents(bus, model);
  return 0;
}
