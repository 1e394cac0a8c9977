// Calls the operations on a NAND partition and prints their results. At the start, blocks 0 and 2 are bad, and the
// others are erased.
#include <cstdio>
#include <exception>
#include <vector>

#include "lib/hardware/nand_access.h"
#include "lib/hardware/nand_access_linux.h"
#include "lib/hardware/nand_partition.h"

namespace {

using Bytes = std::vector<unsigned char>;

void PrintBadBlocks(NandAccess& nand) {
  std::printf("bad blocks:");
  for (std::uint32_t offset = 0; offset < nand.GetTotalSize(); offset += nand.GetEraseSize()) {
    if (nand.IsBadBlock(offset)) {
      std::printf(" %u", offset / nand.GetEraseSize());
    }
  }
  std::printf("\n");
}

Bytes PatternOf(std::uint32_t block, std::size_t size) {
  Bytes pattern(size);
  for (std::size_t i = 0; i < size; ++i) {
    // The period is not a multiple of the step of the error correction, whose code could otherwise look like erased
    // flash.
    pattern[i] = static_cast<unsigned char>(i % 251 + block);
  }
  return pattern;
}

void PrintContent(NandAccess& nand, std::uint32_t block) {
  const std::size_t size = nand.GetEraseSize();
  Bytes content(size);
  const std::size_t count = nand.Read(block * nand.GetEraseSize(), content.data(), size);
  const char* what = "something else";
  if (content == Bytes(size, 0xFF)) {
    what = "erased";
  } else if (content == PatternOf(block, size)) {
    what = "pattern";
  }
  std::printf("block %u: %zu bytes, %s, spare area %s\n", block, count, what,
              nand.IsOobErased(block * nand.GetEraseSize()) ? "erased" : "written");
}

void PrintOutcome(const char* what, void (*operation)(NandAccess&), NandAccess& nand) {
  try {
    operation(nand);
    std::printf("%s: done\n", what);
  } catch (const std::exception& e) {
    std::printf("%s: %s\n", what, e.what());
  }
}

void WritePattern(NandAccess& nand, std::uint32_t block) {
  const Bytes pattern = PatternOf(block, nand.GetEraseSize());
  std::printf("write block %u: %zu bytes\n", block,
              nand.WriteBlock(block * nand.GetEraseSize(), pattern.data(), pattern.size()));
}

void Report(const NandPartition& partition) {
  std::printf("%s: '%s', %u bytes in blocks of %u\n", partition.path.c_str(), partition.name.c_str(), partition.size,
              partition.erase_size);
  const auto access = LinuxNandAccessImpl(partition.path, partition.size);
  NandAccess& nand = *access;
  const std::uint32_t erase_size = nand.GetEraseSize();
  std::printf("erase size %u, write size %u, spare size %u, total size %u\n", erase_size, nand.GetWriteSize(),
              nand.GetOobSize(), nand.GetTotalSize());
  std::printf("limited to 3 blocks: total size %u\n",
              LinuxNandAccessImpl(partition.path, 3 * erase_size)->GetTotalSize());
  std::printf("limited to more than there is: total size %u\n",
              LinuxNandAccessImpl(partition.path, 2 * partition.size)->GetTotalSize());
  PrintBadBlocks(nand);

  PrintContent(nand, 1);
  for (const std::uint32_t block : {1U, 3U, 4U}) {
    WritePattern(nand, block);
    PrintContent(nand, block);
  }
  Bytes two_blocks(2 * erase_size);
  std::printf("read of two blocks: %zu bytes\n", nand.Read(3 * erase_size, two_blocks.data(), two_blocks.size()));
  std::printf("read of nothing: %zu bytes\n", nand.Read(3 * erase_size, two_blocks.data(), 0));
  std::printf("read at the end: %zu bytes\n", nand.Read(nand.GetTotalSize(), two_blocks.data(), erase_size));

  // Block 2, in the middle of the range, is bad: erasing it would fail.
  nand.EraseRange(erase_size, 3 * erase_size);
  std::printf("erased blocks 1 to 3\n");
  for (const std::uint32_t block : {1U, 3U, 4U}) {
    PrintContent(nand, block);
  }
  PrintOutcome(
      "erase of a bad block", [](NandAccess& n) { n.EraseBlock(2 * n.GetEraseSize()); }, nand);
  PrintOutcome(
      "erase of half a block", [](NandAccess& n) { n.EraseBlock(n.GetEraseSize() / 2); }, nand);
  PrintOutcome(
      "question about a block beyond the end", [](NandAccess& n) { n.IsBadBlock(n.GetTotalSize()); }, nand);

  nand.MarkBadBlock(3 * erase_size);
  std::printf("marked block 3\n");
  PrintBadBlocks(nand);
  nand.EraseAll();
  std::printf("erased all\n");
  for (const std::uint32_t block : {1U, 4U, 7U}) {
    PrintContent(nand, block);
  }
  PrintBadBlocks(nand);
}

}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    FindNandPartition("flash0");
  } catch (const std::exception& e) {
    std::printf("%s\n", e.what());
  }
  try {
    Report(FindNandPartition("flash0.nvram"));
  } catch (const std::exception& e) {
    std::printf("threw: %s\n", e.what());
    return 1;
  }
}
