#include "lib/hardware/board_identity.h"

#include <cstdio>
#include <limits>
#include <sstream>

#include "lib/hardware/automatic_base.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/posix_helpers.h"

namespace {

// Parses an unsigned number like a 32-bit strtoul with base 0, on any machine. Ignores what follows the number. A minus
// sign negates modulo 2^32. An absolute value of 2^32 or more gives the maximum, whatever the sign.
std::uint32_t ParseNumber(const std::string& value) {
  constexpr unsigned long long kGreatest = std::numeric_limits<std::uint32_t>::max();
  const unsigned long long number = ParseUnsigned(value);
  const unsigned long long magnitude = value.front() == '-' ? 0 - number : number;
  return static_cast<std::uint32_t>(magnitude > kGreatest ? kGreatest : number);
}

// A revision is a letter; A is 1.
std::int32_t ParseRevision(const std::string& value) { return static_cast<unsigned char>(value.front()) - 0x40; }

void Apply(BoardIdentity& board, const std::string& key, const std::string& value) {
  if (key == "Revision:") {
    board.revision = ParseRevision(value);
  } else if (key == "Family:") {
    board.family = value;
  } else if (key == "ID:") {
    board.board_id = static_cast<std::int32_t>(ParseNumber(value));
  } else if (key == "CFE-version:" || key == "BOLT-version:") {
    board.bootloader_version = value;
  } else if (key == "Secure-keys:") {
    board.secure_keys = ParseNumber(value) != 0;
  } else if (key == "Secure-boot:") {
    board.secure_boot = ParseNumber(value) != 0;
  } else if (key == "Secure-ID:") {
    board.secure_id = value;
  }
}

}  // namespace

BoardIdentity ParseBoardIdentity(const std::string& text) {
  BoardIdentity board;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    char key[21];
    char value[65];
    if (std::sscanf(line.c_str(), "%20s %64s", key, value) == 2) {
      Apply(board, key, value);
    }
  }
  return board;
}

BoardIdentity ReadBoardIdentity(const char* path) {
  try {
    return ParseBoardIdentity(bramble::ReadFile(path));
  } catch (const bramble::ErrnoException&) {
    return BoardIdentity();
  }
}
