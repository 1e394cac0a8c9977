// Prints every member of the hardware description of this board. With an argument, calls the operations on its NAND
// partition and prints their results: blocks 0 and 2 are bad at the start, and the others are erased.
#include <cinttypes>
#include <cstdio>
#include <exception>
#include <initializer_list>
#include <vector>

#include "lib/hardware/hardware_config.h"
#include "lib/hardware/nand_access.h"
#include "lib/hardware/nand_access_linux.h"
#include "lib/hardware/nand_partition.h"

namespace {

using Bytes = std::vector<unsigned char>;

void ReportHardware(const HardwareConfig& hardware) {
  std::printf("revision %" PRId32 "\n", hardware.GetRevision());
  std::printf("board id %" PRId32 "\n", hardware.GetBoardId());
  std::printf("hardware flags 0x%" PRIx64 "\n", hardware.GetHardwareFlags());
  std::printf("family '%s'\n", hardware.GetFamily().c_str());
  std::printf("OEM id '%s'\n", hardware.GetOemId().c_str());
  std::printf("OEM model '%s'\n", hardware.GetOemModel().c_str());
  std::printf("bootloader version '%s'\n", hardware.GetBootloaderVersion().c_str());
  std::printf("secure keys %d\n", hardware.HasSecureKeys());
  std::printf("secure boot %d\n", hardware.HasSecureBoot());
  std::printf("secure id '%s'\n", hardware.GetSecureId().c_str());
  std::printf("registry path '%s'\n", hardware.GetRegistryPath().c_str());
  std::printf("features");
  const char* separator = " ";
  for (unsigned bit = 0; bit < 64; ++bit) {
    if (hardware.HasFeature(static_cast<HardwareFeature>(bit))) {
      std::printf("%s%s", separator, HardwareFeatureName(bit).c_str());
      separator = ", ";
    }
  }
  std::printf("\n");
}

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

void PrintContents(NandAccess& nand, std::initializer_list<std::uint32_t> blocks) {
  const std::uint32_t size = nand.GetEraseSize();
  for (const std::uint32_t block : blocks) {
    Bytes content(size);
    const std::size_t count = nand.Read(block * size, content.data(), size);
    const bool is_erased = content == Bytes(size, 0xFF);
    std::printf("block %u: %zu bytes, %s, spare area %s\n", block, count,
                is_erased                           ? "erased"
                : content == PatternOf(block, size) ? "pattern"
                                                    : "something else",
                nand.IsOobErased(block * size) ? "erased" : "written");
  }
}

void PrintError(const char* operation, void (*call)(NandAccess&), NandAccess& nand) {
  try {
    call(nand);
    std::printf("%s: done\n", operation);
  } catch (const std::exception& e) {
    std::printf("%s: %s\n", operation, e.what());
  }
}

void ReportNand(const NandPartition& partition) {
  std::printf("%s: '%s', %u bytes in blocks of %u\n", partition.path.c_str(), partition.name.c_str(), partition.size,
              partition.erase_size);
  const auto access = LinuxNandAccessImpl(partition.path, partition.size);
  NandAccess& nand = *access;
  const std::uint32_t size = nand.GetEraseSize();
  std::printf("erase size %u, write size %u, spare size %u, total size %u\n", size, nand.GetWriteSize(),
              nand.GetOobSize(), nand.GetTotalSize());
  for (const std::size_t limit : {3 * size, 2 * partition.size}) {
    std::printf("limited to %zu bytes: total size %u\n", limit,
                LinuxNandAccessImpl(partition.path, limit)->GetTotalSize());
  }
  PrintBadBlocks(nand);
  PrintContents(nand, {1});
  for (const std::uint32_t block : {1U, 3U, 4U}) {
    const Bytes pattern = PatternOf(block, size);
    std::printf("written: %zu bytes\n", nand.WriteBlock(block * size, pattern.data(), size));
  }
  PrintContents(nand, {1, 3, 4});
  Bytes buffer(2 * size);
  std::printf("read of two blocks: %zu bytes\n", nand.Read(3 * size, buffer.data(), 2 * size));
  std::printf("read of nothing: %zu bytes\n", nand.Read(3 * size, buffer.data(), 0));
  std::printf("read at the end: %zu bytes\n", nand.Read(nand.GetTotalSize(), buffer.data(), size));

  std::printf("erase blocks 1 to 3, of which block 2 is bad\n");
  nand.EraseRange(size, 3 * size);
  PrintContents(nand, {1, 3, 4});
  PrintError(
      "erase a bad block", [](NandAccess& n) { n.EraseBlock(2 * n.GetEraseSize()); }, nand);
  PrintError(
      "erase half a block", [](NandAccess& n) { n.EraseBlock(n.GetEraseSize() / 2); }, nand);
  PrintError(
      "ask for a block past the end", [](NandAccess& n) { n.IsBadBlock(n.GetTotalSize()); }, nand);

  std::printf("mark block 3, then erase all\n");
  nand.MarkBadBlock(3 * size);
  nand.EraseAll();
  PrintContents(nand, {1, 4, 7});
  PrintBadBlocks(nand);
}

}  // namespace

int main(int argc, char**) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    if (argc == 1) {
      ReportHardware(HardwareConfig());
      return 0;
    }
    ReportNand(FindNandPartition("flash0.nvram"));
  } catch (const std::exception& e) {
    std::printf("%s\n", e.what());
    return 1;
  }
}
