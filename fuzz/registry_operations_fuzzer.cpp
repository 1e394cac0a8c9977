// Fuzzer of the registry's back end: runs any sequence of operations and compares the back end with the model after
// each. A second back end is flushed after each operation, so that its complete text can be compared. The input is a
// line with the capacity of the store, a line with the stored text, then the operations.
#include <cstdint>
#include <memory>
#include <string>

#include "fuzz/support/back_end.h"
#include "registry/registry_back_end.h"
#include "tests/unit/support/stores.h"

void fuzz::Run(Input input) {
  const std::size_t capacity = input.TakeNumber(model::kCapacity);
  const std::string stored_text = input.TakeField();
  const auto new_store = [&] {
    return std::make_shared<test_support::RecordingStore>(stored_text, static_cast<std::uint32_t>(capacity));
  };
  const auto store = new_store();
  const auto flushed_store = new_store();
  model::RegistryModel model(stored_text, capacity);
  {
    RegistryBackEnd back_end(store);
    RegistryBackEnd flushed(flushed_store);
    RequireSameContents(back_end, model);
    while (const auto call = TakeCall(input)) {
      RequireSameReply(back_end, model, *call);
      RequireSameContents(back_end, model);
      RequireEqual(store->Text(), model.StoredText(), "the text in the store");
      Reply(flushed, *call);
      flushed.Flush();
      RequireEqual(flushed_store->Text(), model.AcceptedText(), "the text after a flush");
    }
    Require(store->Reads() == 1, "the store is read once");
  }
  RequireEqual(store->Text(), model.AcceptedText(), "the text in the store at the end");
}
