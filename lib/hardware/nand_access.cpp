#include "lib/hardware/nand_access.h"

void NandAccess::EraseRange(std::uint32_t offset, std::uint32_t length) {
  // In 64 bits, so that a range up to the end of the largest device ends.
  const std::uint64_t end = std::uint64_t{offset} + length;
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
