// Fixed data for the counts of instructions: registries of a given size.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace workload {

constexpr std::size_t kCapacity = 16383;
constexpr std::size_t kManyKeys = 500;
constexpr std::size_t kKeysPerSection = 50;

struct Entry {
  std::string section;
  std::string key;
  std::string value;
};

/// Returns `percent` of the capacity in bytes.
std::size_t Share(std::size_t percent);

/// Returns the entries, in order, of a registry with `keys` keys whose text is `size` bytes long. Returns none if
/// `size` is 0. The entries need no escapes. Throws std::length_error if that many keys do not fit.
std::vector<Entry> Entries(std::size_t size, std::size_t keys);

/// Returns the text of a registry with these entries.
std::string RegistryText(std::size_t size, std::size_t keys);

/// Returns `size` bytes, of which every 16th must be escaped in a value.
std::string ValueToEscape(std::size_t size);

}  // namespace workload
