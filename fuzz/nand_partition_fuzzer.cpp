// Fuzzer of the parser of the kernel's table of NAND partitions. The input is a line with the wanted name, then the
// table.
#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/support/input.h"
#include "fuzz/support/require.h"
#include "lib/hardware/nand_partition.h"

namespace {

bool IsHexadecimal(const std::string& word) {
  return !word.empty() && word.size() <= 16 && word.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

std::uint32_t Number(const std::string& word) {
  return static_cast<std::uint32_t>(std::min(std::stoull(word, nullptr, 16), 0xFFFFFFFFULL));
}

std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words(1);
  for (const char byte : text) {
    if (std::isspace(static_cast<unsigned char>(byte)) == 0) {
      words.back() += byte;
    } else if (!words.back().empty()) {
      words.emplace_back();
    }
  }
  if (words.back().empty()) {
    words.pop_back();
  }
  return words;
}

std::string WithoutQuotes(std::string name) {
  if (name[0] == '"') {
    name.erase(0, 1);
  }
  if (!name.empty() && name[name.size() - 1] == '"') {
    name.erase(name.size() - 1);
  }
  return name;
}

// Returns the partition, or an empty inner optional if the table does not contain it. Returns nothing if a size is not
// a hexadecimal number: the parser may then stop in the middle of a word.
std::optional<std::optional<NandPartition>> Model(const std::string& table, const std::string& wanted) {
  const std::vector<std::string> words = Words(table);
  for (std::size_t i = 4; i + 1 < words.size(); i += 4) {
    const bool has_erase_size = i + 2 < words.size();
    if (!IsHexadecimal(words[i + 1]) || (has_erase_size && !IsHexadecimal(words[i + 2]))) {
      return std::nullopt;
    }
    if (i + 3 < words.size() && WithoutQuotes(words[i + 3]) == wanted) {
      std::string device = words[i];
      if (device[device.size() - 1] == ':') {
        device.erase(device.size() - 1);
      }
      return NandPartition{"/dev/" + device, Number(words[i + 1]), Number(words[i + 2]), wanted};
    }
  }
  return std::optional<NandPartition>();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::string wanted = input.TakeField();
  const std::string table = input.TakeRest();

  std::optional<NandPartition> found;
  try {
    found = ParseNandPartition(table, wanted);
    fuzz::RequireEqual(found->name, wanted, "the name of the partition");
    fuzz::RequireEqual(found->path.substr(0, 5), "/dev/", "the directory of the device");
  } catch (const std::runtime_error& e) {
    fuzz::RequireEqual(std::string(e.what()).substr(0, 37), "Failed to find NAND partition named '", "the error");
  }
  if (const auto expected = Model(table, wanted)) {
    fuzz::Require(found.has_value() == expected->has_value(), "the partition is found if the model finds it");
    if (found.has_value()) {
      fuzz::RequireEqual(found->path, (*expected)->path, "the path");
      fuzz::Require(found->size == (*expected)->size, "the size is that of the model");
      fuzz::Require(found->erase_size == (*expected)->erase_size, "the erase size is that of the model");
    }
  }
  return 0;
}
