// Fixed data for the count of instructions: registries of a given size.
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

/// `percent` of the capacity in bytes.
std::size_t Share(std::size_t percent);

/// The entries of a registry with `keys` keys whose text is `size` bytes long, in order; none for a size of 0. Nothing
/// in them needs an escape. Throws std::length_error if that many keys do not fit.
std::vector<Entry> Entries(std::size_t size, std::size_t keys);

/// The same as the registry's text.
std::string RegistryText(std::size_t size, std::size_t keys);

/// `size` bytes of which every 16th must be escaped in a value.
std::string ValueToEscape(std::size_t size);

}  // namespace workload
