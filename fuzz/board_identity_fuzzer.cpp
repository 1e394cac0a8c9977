// Fuzzer of the parser of "/proc/boardid". The model: the last value of each key wins.
#include <algorithm>
#include <cstddef>
#include <map>
#include <string>

#include "fuzz/support/fuzzer.h"
#include "lib/hardware/board_identity.h"

namespace {

constexpr char kWhitespace[] = " \t\v\f\r";
constexpr std::size_t kLongestKey = 20;
constexpr std::size_t kLongestValue = 64;

// Removes the next word from the line and returns it. If the word is longer than `longest`, its rest stays in the line.
std::string TakeWord(std::string& line, std::size_t longest) {
  line.erase(0, line.find_first_not_of(kWhitespace));
  std::string word = line.substr(0, line.find_first_of(kWhitespace)).substr(0, longest);
  line.erase(0, word.size());
  return word;
}

// Returns the last value of each key. A line ends at its first NUL byte.
std::map<std::string, std::string> Values(const std::string& text) {
  std::map<std::string, std::string> values;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    std::string line = text.substr(begin, end - begin).c_str();
    begin = end + 1;
    const std::string key = TakeWord(line, kLongestKey);
    const std::string value = TakeWord(line, kLongestValue);
    if (!value.empty()) {
      values[key] = value;
      // Both keys set the same field.
      if (key == "BOLT-version:") {
        values["CFE-version:"] = value;
      }
    }
  }
  return values;
}

// Returns the number in a decimal value without leading zeros or a hexadecimal value, if it has at most seven digits.
// Returns -1 for all other values.
long PlainNumber(const std::string& value) {
  const bool hexadecimal = value.compare(0, 2, "0x") == 0;
  const std::string digits = hexadecimal ? value.substr(2) : value;
  const bool plain =
      !digits.empty() && digits.size() <= 7 && (hexadecimal || digits[0] != '0') &&
      digits.find_first_not_of(hexadecimal ? "0123456789abcdefABCDEF" : "0123456789") == std::string::npos;
  return plain ? std::stol(digits, nullptr, hexadecimal ? 16 : 10) : -1;
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
