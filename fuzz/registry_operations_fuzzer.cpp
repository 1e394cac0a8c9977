// Fuzzer of the registry's back end: runs any sequence of operations and compares the back end with the model after
// each. A second back end is flushed after each operation, so that its complete text can be compared. The input is a
// line with the capacity of the store, a line with the stored text, then the operations.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "fuzz/support/input.h"
#include "fuzz/support/registry_model.h"
#include "fuzz/support/registry_operations.h"
#include "fuzz/support/require.h"
#include "registry/registry_back_end.h"
#include "tests/unit/support/stores.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::size_t capacity = input.TakeNumber(16383);
  const std::string stored_text = input.TakeField();
  const auto new_store = [&] {
    return std::make_shared<test_support::RecordingStore>(stored_text, static_cast<std::uint32_t>(capacity));
  };
  const auto store = new_store();
  const auto flushed_store = new_store();
  fuzz::RegistryModel model(stored_text, capacity);
  {
    RegistryBackEnd back_end(store);
    RegistryBackEnd flushed(flushed_store);
    fuzz::RequireEqual(fuzz::Contents(back_end), fuzz::Contents(model), "the contents after the load");
    while (const auto operation = fuzz::TakeOperation(input)) {
      fuzz::RequireEqual(fuzz::Outcome(back_end, *operation), fuzz::Outcome(model, *operation),
                         operation->name.c_str());
      fuzz::RequireEqual(fuzz::Contents(back_end), fuzz::Contents(model), "the contents");
      fuzz::RequireEqual(store->Text(), model.StoredText(), "the text in the store");
      fuzz::Outcome(flushed, *operation);
      flushed.Flush();
      fuzz::RequireEqual(flushed_store->Text(), model.AcceptedText(), "the text after a flush");
    }
    fuzz::Require(store->Reads() == 1, "the store is read once");
  }
  model.Flush();
  fuzz::RequireEqual(store->Text(), model.StoredText(), "the text in the store at the end");
  return 0;
}
