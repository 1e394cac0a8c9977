// Fuzzer of the served registry: sends it any messages through the daemon's event loop. Each call must get exactly the
// reply of the model, and the registry must keep the contents of the model. The input is a line with the capacity of
// the store, a line with the stored text, then messages as described in fuzz/support/bus_input.h.
#include <cstdint>
#include <memory>
#include <string>

#include "dbus/registry_server.h"
#include "fuzz/support/bus_input.h"
#include "fuzz/support/bus_model.h"
#include "tests/unit/support/stores.h"

void fuzz::Run(Input input) {
  PeerBus& bus = PeerBus::Instance();
  const std::size_t capacity = input.TakeNumber(model::kCapacity);
  const std::string stored_text = input.TakeField();
  const auto store = std::make_shared<test_support::RecordingStore>(stored_text, static_cast<std::uint32_t>(capacity));
  model::RegistryModel model(stored_text, capacity);
  {
    RegistryServer server(bus.ServedEnd(), store);
    while (!input.AtEnd()) {
      if (const Message message = TakeMessage(input)) {
        RequireAnswered(bus, model, *message);
        RequireEqual(store->Text(), model.StoredText(), "the text in the store");
      }
    }
    RequireContents(bus, model);
  }
  // The end of the server writes pending changes.
  RequireEqual(store->Text(), model.AcceptedText(), "the text in the store at the end");
}
