// Fuzzer of the import of JSON: compares the result with the model, then imports an export into an empty registry. The
// input is a line with the capacity of the store, a line with the stored text, then the JSON text.
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

namespace {

constexpr std::size_t kGreatestCapacity = 16383;

// Whether an import of the exported table into an empty registry creates the same table. An import creates no empty
// sections.
bool CanBeImported(const RegistrySections& sections) {
  fuzz::RegistryModel folding("", kGreatestCapacity);
  for (const auto& [section, keys] : sections) {
    if (keys.empty()) {
      return false;
    }
    for (const auto& [key, value] : keys) {
      if (fuzz::Outcome(folding, {"Write", {section, key, value}}) != "returns done") {
        return false;
      }
    }
  }
  // Only a stored text can contain names with upper-case letters.
  return folding.Sections() == sections;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::size_t capacity = input.TakeNumber(kGreatestCapacity);
  const std::string stored_text = input.TakeField();
  const fuzz::Operation import{"WriteJson", {input.TakeRest()}};
  const auto store = std::make_shared<test_support::RecordingStore>(stored_text, static_cast<std::uint32_t>(capacity));
  fuzz::RegistryModel model(stored_text, capacity);
  RegistryBackEnd back_end(store);

  fuzz::RequireEqual(fuzz::Outcome(back_end, import), fuzz::Outcome(model, import), "the import");
  fuzz::RequireEqual(fuzz::Contents(back_end), fuzz::Contents(model), "the contents after the import");
  fuzz::RequireEqual(store->Text(), model.StoredText(), "the text in the store");

  const std::string json = fuzz::Outcome(model, {"ReadAllJson", {}});
  if (json.rfind("returns ", 0) == 0 && CanBeImported(model.Sections())) {
    RegistryBackEnd copy(std::make_shared<test_support::RecordingStore>());
    copy.WriteJson(back_end.ReadAllJson());
    fuzz::RequireEqual(fuzz::Contents(copy), fuzz::Contents(back_end), "the contents after an export and an import");
  }
  return 0;
}
