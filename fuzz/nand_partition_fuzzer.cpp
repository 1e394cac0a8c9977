// Fuzzer of the parser of the kernel's table of NAND partitions. The input is a line with the wanted name, then the
// table.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/support/fuzzer.h"
#include "lib/hardware/nand_partition.h"

namespace {

bool IsHexadecimal(const std::string& word) {
  return !word.empty() && word.size() <= 16 && word.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

std::uint32_t Number(const std::string& word) {
  return static_cast<std::uint32_t>(std::min(std::stoull(word, nullptr, 16), 0xFFFFFFFFULL));
}

std::string WithoutQuotes(std::string name) {
  name.erase(0, name[0] == '"' ? 1 : 0);
  name.erase(!name.empty() && name.back() == '"' ? name.size() - 1 : name.size());
  return name;
}

// Returns the partition, or an empty inner optional if the table does not contain it. Returns nothing if a size is not
// a hexadecimal number: the parser may then stop in the middle of a word.
std::optional<std::optional<NandPartition>> Model(const std::string& table, const std::string& wanted) {
  std::istringstream stream(table);
  const std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
  for (std::size_t i = 4; i + 1 < words.size(); i += 4) {
    const bool has_erase_size = i + 2 < words.size();
    if (!IsHexadecimal(words[i + 1]) || (has_erase_size && !IsHexadecimal(words[i + 2]))) {
      return std::nullopt;
    }
    if (i + 3 < words.size() && WithoutQuotes(words[i + 3]) == wanted) {
      const std::string device = words[i].substr(0, words[i].size() - (words[i].back() == ':' ? 1 : 0));
      return NandPartition{"/dev/" + device, Number(words[i + 1]), Number(words[i + 2]), wanted};
    }
  }
  return std::optional<NandPartition>();
}

}  // namespace

void fuzz::Run(Input input) {
  const std::string wanted = input.TakeField();
  const std::string table = input.TakeRest();

  std::optional<NandPartition> found;
  try {
    found = ParseNandPartition(table, wanted);
    RequireEqual(found->name, wanted, "the name of the partition");
    RequireEqual(found->path.substr(0, 5), "/dev/", "the directory of the device");
  } catch (const std::runtime_error& e) {
    RequireEqual(std::string(e.what()).substr(0, 37), "Failed to find NAND partition named '", "the error");
  }
  if (const auto expected = Model(table, wanted)) {
    Require(found.has_value() == expected->has_value(), "the partition is found if the model finds it");
    if (found.has_value()) {
      RequireEqual(found->path, (*expected)->path, "the path");
      Require(found->size == (*expected)->size, "the size is that of the model");
      Require(found->erase_size == (*expected)->erase_size, "the erase size is that of the model");
    }
  }
}
