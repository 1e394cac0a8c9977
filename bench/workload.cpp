#include "bench/workload.h"

#include <stdexcept>

namespace workload {
namespace {

std::string Name(char kind, std::size_t number) {
  const std::string digits = std::to_string(number);
  return kind + std::string(digits.size() < 3 ? 3 - digits.size() : 0, '0') + digits;
}

}  // namespace

std::size_t Share(std::size_t percent) { return kCapacity * percent / 100; }

std::vector<Entry> Entries(std::size_t size, std::size_t keys) {
  std::vector<Entry> entries;
  if (size == 0) {
    return entries;
  }
  const std::size_t sections = (keys + kKeysPerSection - 1) / kKeysPerSection;
  const std::size_t names = sections * std::string("[s000]\n").size() + keys * std::string("k000=\n").size();
  if (size < names + keys) {
    throw std::length_error("too many keys for the size");
  }
  const std::size_t values = size - names;
  for (std::size_t key = 0; key < keys; ++key) {
    // The first keys share the remainder of the division.
    const std::size_t length = values / keys + (key < values % keys ? 1 : 0);
    entries.push_back(
        {Name('s', key / kKeysPerSection), Name('k', key), std::string(length, static_cast<char>('a' + key % 26))});
  }
  return entries;
}

std::string RegistryText(std::size_t size, std::size_t keys) {
  std::string text;
  std::string section;
  for (const Entry& entry : Entries(size, keys)) {
    if (entry.section != section) {
      section = entry.section;
      text += "[" + section + "]\n";
    }
    text += entry.key + "=" + entry.value + "\n";
  }
  return text;
}

std::string ValueToEscape(std::size_t size) {
  std::string value(size, 'v');
  for (std::size_t i = 0; i < size; i += 16) {
    value[i] = '%';
  }
  return value;
}

}  // namespace workload
