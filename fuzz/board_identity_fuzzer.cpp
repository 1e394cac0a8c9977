// Fuzzer of the parser of "/proc/boardid". The model: the last value of each key wins.
#include <iomanip>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "fuzz/support/fuzzer.h"
#include "lib/hardware/board_identity.h"

namespace {

// Returns the last value of each key. A line ends at its first NUL byte. The rest of a long key is the value.
std::map<std::string, std::string> Values(const std::string& text) {
  std::map<std::string, std::string> values;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line.c_str());
    std::string key, value;
    if (words >> std::setw(20) >> key >> std::setw(64) >> value) {
      // Two keys set the same field.
      values[key == "BOLT-version:" ? "CFE-version:" : key] = value;
    }
  }
  return values;
}

// Returns the number in a decimal value without leading zeros or a hexadecimal value, if it has at most seven digits.
// Returns -1 for all other values.
long PlainNumber(const std::string& value) {
  static const std::regex kPlain("0x[0-9A-Fa-f]{1,7}|[1-9][0-9]{0,6}");
  return std::regex_match(value, kPlain) ? std::stol(value, nullptr, 0) : -1;
}

}  // namespace

void fuzz::Run(Input input) {
  const std::string text = input.TakeRest();
  const BoardIdentity board = ParseBoardIdentity(text);
  std::map<std::string, std::string> values = Values(text);

  RequireEqual(board.family, values["Family:"], "the family");
  RequireEqual(board.secure_id, values["Secure-ID:"], "the secure id");
  RequireEqual(board.bootloader_version, values["CFE-version:"], "the bootloader version");
  const std::string revision = values["Revision:"];
  Require(board.revision == (revision.empty() ? -1 : static_cast<unsigned char>(revision[0]) - 64),
          "the revision is the number of its letter");
  if (const std::string id = values["ID:"]; id.empty() || PlainNumber(id) >= 0) {
    Require(board.board_id == PlainNumber(id), "the board id is the number");
  }
  if (const long keys = PlainNumber(values["Secure-keys:"]); keys >= 0 || values["Secure-keys:"].empty()) {
    Require(board.secure_keys == (keys > 0), "secure keys are on for every number except 0");
  }
  if (const long boot = PlainNumber(values["Secure-boot:"]); boot >= 0 || values["Secure-boot:"].empty()) {
    Require(board.secure_boot == (boot > 0), "secure boot is on for every number except 0");
  }
}
