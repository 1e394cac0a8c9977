// Fixed data for the benchmarks: registries of a given size, and a store that costs nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "lib/platform/persistent_store.h"

namespace workload {

constexpr std::uint32_t kCapacity = 16383;
constexpr std::size_t kManyKeys = 500;
constexpr std::size_t kKeysPerSection = 50;

/// `percent` of the capacity in bytes.
std::size_t Share(std::size_t percent);

/// The text of a registry with `keys` keys that is `size` bytes long; the empty text for a size of 0. Nothing in it
/// needs an escape. Throws std::length_error if that many keys do not fit.
std::string RegistryText(std::size_t size, std::size_t keys);

std::string SectionName(std::size_t key);
std::string KeyName(std::size_t key);

/// `size` bytes of which every 16th must be escaped in a value.
std::string ValueToEscape(std::size_t size);

/// Holds the text in memory: what is measured is what stands in front of the store.
class MemoryStore : public PersistentStore {
public:
  explicit MemoryStore(std::string text) : m_text(std::move(text)) {}
  std::string Read() override { return m_text; }
  void Write(const std::string& text) override { m_text = text; }
  std::uint32_t Capacity() override { return kCapacity; }

private:
  std::string m_text;
};

}  // namespace workload
