#include "bench/workload.h"

#include <stdexcept>

namespace workload {
namespace {

std::string Padded(std::size_t number) {
  const std::string digits = std::to_string(number);
  return std::string(digits.size() < 3 ? 3 - digits.size() : 0, '0') + digits;
}

}  // namespace

std::size_t Share(std::size_t percent) { return kCapacity * percent / 100; }

std::string SectionName(std::size_t key) { return "s" + Padded(key / kKeysPerSection); }

std::string KeyName(std::size_t key) { return "k" + Padded(key); }

std::string RegistryText(std::size_t size, std::size_t keys) {
  if (size == 0) {
    return std::string();
  }
  const std::size_t sections = (keys + kKeysPerSection - 1) / kKeysPerSection;
  const std::size_t names = sections * std::string("[s000]\n").size() + keys * std::string("k000=\n").size();
  if (size < names + keys) {
    throw std::length_error("too many keys for the size");
  }
  const std::size_t values = size - names;
  std::string text;
  text.reserve(size);
  for (std::size_t key = 0; key < keys; ++key) {
    if (key % kKeysPerSection == 0) {
      text += '[' + SectionName(key) + "]\n";
    }
    // The first keys take what the division leaves over.
    const std::size_t length = values / keys + (key < values % keys ? 1 : 0);
    text += KeyName(key) + '=' + std::string(length, static_cast<char>('a' + key % 26)) + '\n';
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
