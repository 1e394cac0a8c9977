#include "bench/bus/dconf_change.h"

namespace {

constexpr std::size_t kAlignment = 8;

void Align(std::string& bytes) { bytes.append((kAlignment - bytes.size() % kAlignment) % kAlignment, '\0'); }

// Offsets to the ends of a container's members follow the members. They are as small as the whole container allows.
void AppendOffsets(std::string& bytes, const std::vector<std::size_t>& offsets) {
  std::size_t width = 1;
  while (bytes.size() + offsets.size() * width >= std::size_t{1} << (8 * width)) {
    width *= 2;
  }
  for (const std::size_t offset : offsets) {
    for (std::size_t byte = 0; byte < width; ++byte) {
      bytes += static_cast<char>(offset >> (8 * byte) & 0xff);
    }
  }
}

std::string DictEntry(const workload::Entry& entry) {
  std::string bytes = "/" + entry.section + "/" + entry.key + '\0';
  const std::size_t end_of_path = bytes.size();
  Align(bytes);
  bytes += entry.value + '\0';
  // A variant ends with its type, a "maybe" that holds something with a zero byte.
  bytes += '\0';
  bytes += 's';
  bytes += '\0';
  AppendOffsets(bytes, {end_of_path});
  return bytes;
}

}  // namespace

std::vector<std::uint8_t> DconfChange(const std::vector<workload::Entry>& entries) {
  std::string bytes;
  std::vector<std::size_t> ends;
  for (const workload::Entry& entry : entries) {
    Align(bytes);
    bytes += DictEntry(entry);
    ends.push_back(bytes.size());
  }
  AppendOffsets(bytes, ends);
  return {bytes.begin(), bytes.end()};
}
