// A registry back end over a recording store.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "registry/registry_back_end.h"
#include "tests/unit/support/stores.h"

/// Every Capacity first calls the hook and passes on its exceptions. Each save asks for the capacity once.
class HookedStore : public test_support::RecordingStore {
public:
  using RecordingStore::RecordingStore;

  std::uint32_t Capacity() override {
    if (m_on_capacity) {
      m_on_capacity();
    }
    return RecordingStore::Capacity();
  }

  void OnCapacity(std::function<void()> hook) { m_on_capacity = std::move(hook); }

private:
  std::function<void()> m_on_capacity;
};

/// The writes of the store are final after a flush, or when the registry has been destroyed.
struct BackEnd {
  explicit BackEnd(const std::string& text = "", std::uint32_t capacity = kRegistryCapacity)
      : store(std::make_shared<HookedStore>(text, capacity)), registry(std::in_place, store) {}

  Registry* operator->() { return &*registry; }

  /// The text that a flush leaves in the store.
  std::string FlushedText() {
    registry->Flush();
    return store->Text();
  }

  /// Expects that the registry has the contents `json`, and that nothing has been written or is pending.
  void ExpectUnchanged(const std::string& json) {
    EXPECT_EQ(registry->ReadAllJson(), json);
    registry->Flush();
    EXPECT_TRUE(store->Writes().empty());
  }

  std::shared_ptr<HookedStore> store;
  std::optional<RegistryBackEnd> registry;
};
