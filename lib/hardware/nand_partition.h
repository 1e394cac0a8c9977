// Finds a NAND partition by its name in the kernel's table of MTD devices.
#pragma once

#include <cstdint>
#include <string>

struct NandPartition {
  std::string path;              // of the character device
  std::uint32_t size = 0;        // bytes; the greatest number for one that does not fit
  std::uint32_t erase_size = 0;  // bytes, likewise
  std::string name;
};

/// Looks `name` up in the text of "/proc/mtd". Names are compared whole. The table is read word by word, deliberately,
/// so a partition with a blank in its name hides all that follow it. Throws std::runtime_error if the name is not
/// found.
NandPartition ParseNandPartition(const std::string& table, const std::string& name);

/// The same with the table of the running kernel. Throws bramble::ErrnoException too, if the table cannot be read.
NandPartition FindNandPartition(const std::string& name, const char* table_path = "/proc/mtd");
