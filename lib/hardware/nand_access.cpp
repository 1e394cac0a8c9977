#include "lib/hardware/nand_access.h"

#include <algorithm>

void NandAccess::EraseRange(std::uint32_t offset, std::uint32_t length) {
  // 64 bits avoid an overflow for a range that ends at the end of the largest device.
  const std::uint64_t end = std::min(std::uint64_t{offset} + length, std::uint64_t{1} << 32);
  for (std::uint64_t block = offset; block < end; block += GetEraseSize()) {
    const auto start = static_cast<std::uint32_t>(block);
    if (!IsBadBlock(start)) {
      EraseBlock(start);
    }
  }
}

void NandAccess::EraseAll() { EraseRange(0, GetTotalSize()); }

std::size_t NandAccess::WriteBlock(std::uint32_t offset, const void* buffer, std::size_t length) {
  return Write(offset, buffer, length);
}
