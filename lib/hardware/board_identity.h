// The identity of the board, which the kernel reports in "/proc/boardid".
#pragma once

#include <cstdint>
#include <string>

struct BoardIdentity {
  std::int32_t revision = -1;  // 1 for A, 2 for B, ...
  std::int32_t board_id = -1;
  std::string family;
  std::string bootloader_version;
  bool secure_keys = false;
  bool secure_boot = false;
  std::string secure_id;
};

/// Parses lines that consist of a key and a value. Incomplete lines and unknown keys are skipped. The last line of a
/// key wins. Keys are cut to 20 bytes (and are then unknown), values to 64 bytes. Throws std::bad_alloc.
BoardIdentity ParseBoardIdentity(const std::string& text);

/// Parses a file. Silently returns the defaults if the file cannot be read.
BoardIdentity ReadBoardIdentity(const char* path = "/proc/boardid");
