// Fuzzer of the served registry: sends it any messages through the daemon's event loop. Each call must get exactly the
// reply of the model, and the registry must keep the contents of the model. The input is a line with the capacity of
// the store, a line with the stored text, then messages as described in fuzz/support/bus_input.h.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "dbus/registry_server.h"
#include "fuzz/support/bus_input.h"
#include "fuzz/support/bus_model.h"
#include "fuzz/support/require.h"
#include "tests/unit/support/stores.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::PeerBus& bus = fuzz::PeerBus::Instance();
  fuzz::Input input(data, size);
  const std::size_t capacity = input.TakeNumber(16383);
  const std::string stored_text = input.TakeField();
  const auto store = std::make_shared<test_support::RecordingStore>(stored_text, static_cast<std::uint32_t>(capacity));
  fuzz::RegistryModel model(stored_text, capacity);
  {
    RegistryServer server(bus.ServedEnd(), store);
    while (!input.AtEnd()) {
      if (const fuzz::Message message = fuzz::TakeMessage(input)) {
        fuzz::RequireAnswered(bus, model, *message);
        fuzz::RequireEqual(store->Text(), model.StoredText(), "the text in the store");
      }
    }
    fuzz::RequireContents(bus, model);
  }
  model.Flush();
  fuzz::RequireEqual(store->Text(), model.StoredText(), "the text in the store at the end");
  return 0;
}
