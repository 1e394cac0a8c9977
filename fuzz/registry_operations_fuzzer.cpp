// Any sequence of operations on the registry's back end, compared with the model after each of them. A line with the
// store's capacity, one with the text that it holds at first, then the operations.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "fuzz/support/input.h"
#include "fuzz/support/registry_model.h"
#include "fuzz/support/registry_operations.h"
#include "fuzz/support/require.h"
#include "registry/registry_back_end.h"
#include "tests/support/stores.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::size_t capacity = input.TakeNumber(16383);
  const std::string stored_text = input.TakeField();
  const auto store = std::make_shared<test_support::RecordingStore>(stored_text, static_cast<std::uint32_t>(capacity));
  fuzz::RegistryModel model(stored_text, capacity);
  {
    RegistryBackEnd back_end(store);
    fuzz::RequireEqual(fuzz::Contents(back_end), fuzz::Contents(model), "the contents after the load");
    while (const auto operation = fuzz::TakeOperation(input)) {
      fuzz::RequireEqual(fuzz::Outcome(back_end, *operation), fuzz::Outcome(model, *operation),
                         operation->name.c_str());
      fuzz::RequireEqual(fuzz::Contents(back_end), fuzz::Contents(model), "the contents");
      fuzz::RequireEqual(store->Text(), model.StoredText(), "the text in the store");
    }
    fuzz::Require(store->Reads() == 1, "the store is read once");
  }
  model.Flush();
  fuzz::RequireEqual(store->Text(), model.StoredText(), "the text in the store at the end");
  return 0;
}
