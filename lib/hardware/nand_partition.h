// Finds a NAND partition by name in the kernel's table of MTD devices.
#pragma once

#include <cstdint>
#include <string>

struct NandPartition {
  std::string path;              // of the character device
  std::uint32_t size = 0;        // bytes; the maximum if the size does not fit
  std::uint32_t erase_size = 0;  // bytes; the maximum if the size does not fit
  std::string name;
};

/// Looks up `name` in the text of "/proc/mtd". The whole name must match. The table is deliberately read word by word,
/// so a partition with a space in its name hides all later ones. Throws std::runtime_error if the name is not found.
NandPartition ParseNandPartition(const std::string& table, const std::string& name);

/// Looks up `name` in the table of the running kernel. Also throws bramble::ErrnoException if the table cannot be read.
NandPartition FindNandPartition(const std::string& name, const char* table_path = "/proc/mtd");
