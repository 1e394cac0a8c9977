#include "lib/hardware/board_identity.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/unit/hardware/device_files.h"
#include "tests/unit/support/captured_stderr.h"

namespace test_hardware {
namespace {

// Returns the members that are known, such as "family=x;".
std::string Known(const BoardIdentity& board) {
  std::string text;
  const auto add = [&text](bool is_known, const char* name, const std::string& value) {
    text += is_known ? std::string(name) + "=" + value + ";" : "";
  };
  add(board.revision != -1, "revision", std::to_string(board.revision));
  add(board.board_id != -1, "ID", std::to_string(board.board_id));
  add(!board.family.empty(), "family", board.family);
  add(!board.bootloader_version.empty(), "bootloader", board.bootloader_version);
  add(board.secure_keys, "keys", "1");
  add(board.secure_boot, "boot", "1");
  add(!board.secure_id.empty(), "secure ID", board.secure_id);
  return text;
}

TEST(BoardIdentity, ConsistsOfTheLinesWithAKnownKeyAndAValue) {
  const std::string longest(64, 'v');
  const std::string huge(1000000, 'x');
  const struct {
    const char* name;
    std::string text;
    std::string known;
  } rows[] = {
      {"no lines", "", ""},
      {"all keys",
       "Revision: C\nFamily: tiger\nID: 0x12\nCFE-version: 7.1.46\nSecure-keys: 1\nSecure-boot: 0\nSecure-ID: 00ff-1\n",
       "revision=3;ID=18;family=tiger;bootloader=7.1.46;keys=1;secure ID=00ff-1;"},
      {"the other flag", "Secure-keys: 0\nSecure-boot: 1", "boot=1;"},
      {"BOLT", "BOLT-version: v2", "bootloader=v2;"},
      {"same key twice", "Family: first\nFamily: second\n", "family=second;"},
      {"CFE then BOLT", "CFE-version: first\nBOLT-version: second\n", "bootloader=second;"},
      {"BOLT then CFE", "BOLT-version: first\nCFE-version: second\n", "bootloader=second;"},
      {"a flag is cleared again", "Secure-keys: 1\nSecure-keys: 0\n", ""},
      {"an incomplete line is skipped", "Family: x\nFamily:\n", "family=x;"},

      {"only a key", "Family:\n", ""},
      {"key and white space", "Family:   \t \n", ""},
      {"empty line", "\n", ""},
      {"white space", "  \t \n", ""},
      {"word", "Family\n", ""},
      {"no space after the key", "Family:x\n", ""},
      {"no colon", "Family x\n", ""},
      {"lower case", "family: x\n", ""},
      {"upper case", "FAMILY: x\n", ""},
      {"unknown key", "Colour: x\n", ""},
      {"longer key", "Family:: x\n", ""},
      {"prefix", "XFamily: x\n", ""},
      {"key as a value", "Colour: Family: x\n", ""},
      {"value on the next line", "Family:\nx\n", ""},
      {"key on the next line is not a value", "ID:\nFamily: x\n", "family=x;"},
      {"good line between bad ones", "junk\n\nFamily: x\n:\n", "family=x;"},
      {"NUL before the value", std::string("Family: \0x\n", 11), ""},
      {"NUL in the value", std::string("Family: x\0y\nSecret: z\n", 22), "family=x;"},

      {"no newline at the end", "Family: x", "family=x;"},
      {"CRLF", "Family: x\r\nFamily: y\r\n", "family=y;"},
      {"tab", "Family:\tx\n", "family=x;"},
      {"many spaces", "Family:      x      \n", "family=x;"},
      {"indented", "   Family: x\n", "family=x;"},
      {"third word", "Family: x y\n", "family=x;"},
      {"bytes above 0x7F", "Family: \xC3\xA9\xFF\n", "family=\xC3\xA9\xFF;"},
      {"percent", "Family: %s%n\n", "family=%s%n;"},

      {"longest value", "Family: " + longest + "\n", "family=" + longest + ";"},
      {"longer value", "Family: " + longest + "w\n", "family=" + longest + ";"},
      {"words after a longer value", "Family: " + longest + "www more\nID:\n", "family=" + longest + ";"},
      {"huge value", "Family: " + huge + "\n", "family=" + huge.substr(0, 64) + ";"},
      {"longer value without a newline", "Family: " + longest + "w", "family=" + longest + ";"},
      {"longest key", std::string(20, 'k') + " x\n", ""},
      {"longer key whose rest is a key", std::string(20, 'k') + "Family: x\n", ""},
      {"longer key that begins like a key", "Family:" + std::string(14, 'k') + " x\n", ""},
      {"huge key", huge + "\nFamily: x\n", "family=x;"},
      {"huge key and value", huge + " y\nFamily: x\n", "family=x;"},
      {"value after many spaces", "Family:" + std::string(1000, ' ') + "x\n", "family=x;"},

      {"revision Z", "Revision: Z", "revision=26;"},
      {"revision that is a digit", "Revision: 5", "revision=-11;"},
      {"revision that is an at sign", "Revision: @", "revision=0;"},
      {"revision that is a small letter", "Revision: a", "revision=33;"},
      {"revision of the minimum byte", "Revision: \x01", "revision=-63;"},
      {"revision of a byte above 0x7F", "Revision: \x80", "revision=64;"},
      {"revision of the maximum byte", "Revision: \xFF", "revision=191;"},
      {"revision of two letters", "Revision: CA", "revision=3;"},
      {"revision of a word", "Revision: B-2", "revision=2;"},
  };
  const test_support::CapturedStderr silent;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Known(ParseBoardIdentity(row.text)), row.known);
  }
}

TEST(BoardIdentity, HasNumbersOf32Bits) {
  const struct {
    std::int32_t number;
    std::vector<std::string> values;
  } rows[] = {
      {42, {"42", "0x2a", "052", "42nd", "+42"}},
      {0, {"0", "0b11", "junk", "-"}},
      {-2, {"-2"}},
      {2147483647, {"2147483647"}},
      {-2147483647, {"-2147483647"}},
      {INT32_MIN, {"2147483648", "-2147483648"}},
      {1, {"-4294967295"}},
      {-1, {"4294967295", "0xFFFFFFFF"}},
      {-1, {"4294967296", "0x100000000", "99999999999999999999999"}},
      // A number that does not fit is the maximum. A strtoul with 64 bits would negate the first four.
      {-1, {"-4294967296", "-4294967297", "-8589934592", "-18446744073709551615", "-18446744073709551616"}},
      {-1, {"-99999999999999999999999"}},
  };
  for (const auto& row : rows) {
    for (const std::string& value : row.values) {
      SCOPED_TRACE(value);
      EXPECT_EQ(ParseBoardIdentity("ID: " + value).board_id, row.number);
      EXPECT_EQ(ParseBoardIdentity("Secure-keys: " + value).secure_keys, row.number != 0);
      EXPECT_EQ(ParseBoardIdentity("Secure-boot: " + value).secure_boot, row.number != 0);
    }
  }
}

TEST(BoardIdentityFile, IsReadCompletely) {
  const test_support::TempDir dir;
  test_support::WriteTextFile(dir / "boardid", "Revision: B\n" + std::string(5000, '\n') + "Family: lion");
  EXPECT_EQ(Known(ReadBoardIdentity((dir / "boardid").c_str())), "revision=2;family=lion;");
}

TEST(BoardIdentityFile, IsSilentlyUnknownWhenItCannotBeRead) {
  const test_support::CapturedStderr silent;
  // The last is a file that fails when it is read. /proc is a directory without a size.
  for (const char* path : {"/nonexistent/boardid", "/dev/null/boardid", "/tmp", "/proc", "/proc/self/mem"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(Known(ReadBoardIdentity(path)), "");
  }
}

TEST(BoardIdentityFile, IsProcBoardidByDefault) {
  DeviceFiles files;
  files.WriteBoardIdentity("Family: panther\n");
  EXPECT_EQ(ReadBoardIdentity().family, "panther");
}

}  // namespace
}  // namespace test_hardware
