#include "lib/hardware/nand_partition.h"

#include <istream>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "lib/platform/posix_helpers.h"
#include "lib/platform/string_operations.h"

namespace {

void DropQuotes(std::string& name) {
  if (!name.empty() && name.front() == '"') {
    name.erase(0, 1);
  }
  if (!name.empty() && name.back() == '"') {
    name.pop_back();
  }
}

// A size of more than 32 bits is read as the maximum, so that such a device does not hide later ones.
bool ReadSize(std::istream& words, std::uint32_t& size) {
  size = 0;  // at the end of the table the stream does not set it
  if (!(words >> std::hex >> size) && size == std::numeric_limits<std::uint32_t>::max()) {
    words.clear(words.rdstate() & ~std::ios::failbit);
  }
  return !words.fail();
}

}  // namespace

NandPartition ParseNandPartition(const std::string& table, const std::string& name) {
  std::istringstream words(table);
  std::string ignored;
  words >> ignored >> ignored >> ignored >> ignored;  // the header line

  NandPartition partition;
  std::string device;
  while (words >> device && ReadSize(words, partition.size) && ReadSize(words, partition.erase_size) &&
         words >> partition.name) {
    DropQuotes(partition.name);
    if (partition.name == name) {
      if (device.back() == ':') {
        device.pop_back();
      }
      partition.path = "/dev/" + device;
      return partition;
    }
  }
  throw std::runtime_error(bramble::strprintf("Failed to find NAND partition named '%s'", name.c_str()));
}

NandPartition FindNandPartition(const std::string& name, const char* table_path) {
  return ParseNandPartition(bramble::ReadFile(table_path), name);
}
