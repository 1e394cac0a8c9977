// A registry back end over a recording store, as most tests of the back end need it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "registry/registry_back_end.h"
#include "tests/unit/support/stores.h"

/// Members are public for the tests' sake. The registry must be gone, or flushed, before the writes are final.
struct BackEnd {
  explicit BackEnd(const std::string& text = "", std::uint32_t capacity = 16383)
      : store(std::make_shared<test_support::RecordingStore>(text, capacity)), registry(std::in_place, store) {}

  Registry* operator->() { return &*registry; }

  /// The text that a flush would leave in the store.
  std::string FlushedText() {
    registry->Flush();
    return store->Text();
  }

  std::shared_ptr<test_support::RecordingStore> store;
  std::optional<RegistryBackEnd> registry;
};
