// What the kernel tells about the board in "/proc/boardid".
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

/// Parses lines of a key and a value. A line that has not both is skipped; so is an unknown key. A later line of the
/// same key counts. Keys are cut at 20 bytes (and then match none), values at 64. Throws std::bad_alloc.
BoardIdentity ParseBoardIdentity(const std::string& text);

/// The same from a file. One that cannot be read leaves the defaults, in silence.
BoardIdentity ReadBoardIdentity(const char* path = "/proc/boardid");
