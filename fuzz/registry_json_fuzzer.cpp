// Fuzzer of the import of JSON: compares the result with the model, then imports an export into an empty registry. The
// input is a line with the capacity of the store, a line with the stored text, then the JSON text.
#include <cstdint>
#include <memory>
#include <string>

#include "fuzz/support/back_end.h"
#include "registry/registry_back_end.h"
#include "tests/unit/support/stores.h"

void fuzz::Run(Input input) {
  const std::size_t capacity = input.TakeNumber(model::kCapacity);
  const std::string stored_text = input.TakeField();
  const auto store = std::make_shared<test_support::RecordingStore>(stored_text, static_cast<std::uint32_t>(capacity));
  model::RegistryModel model(stored_text, capacity);
  RegistryBackEnd back_end(store);

  RequireSameReply(back_end, model, {"WriteJson", {input.TakeRest()}});
  RequireSameContents(back_end, model);
  RequireEqual(store->Text(), model.StoredText(), "the text in the store");

  if (const model::Reply exported = Reply(back_end, {"ReadAllJson", {}}); exported.type == "s") {
    RegistryBackEnd copy(std::make_shared<test_support::RecordingStore>());
    model::RegistryModel model_of_copy;
    RequireSameReply(copy, model_of_copy, {"WriteJson", exported.items});
    RequireSameContents(copy, model_of_copy);
  }
}
