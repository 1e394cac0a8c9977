#include "lib/hardware/board_identity.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/unit/support/bound_over.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/temp_dir.h"

using test_support::CapturedStderr;
using test_support::TempDir;
using test_support::WriteTextFile;

namespace {

// Returns all members of an identity as one text.
std::string Describe(const BoardIdentity& board) {
  return "revision " + std::to_string(board.revision) + ", board " + std::to_string(board.board_id) + ", family '" +
         board.family + "', bootloader '" + board.bootloader_version + "', keys " + std::to_string(board.secure_keys) +
         ", boot " + std::to_string(board.secure_boot) + ", secure ID '" + board.secure_id + "'";
}

constexpr char kNothing[] = "revision -1, board -1, family '', bootloader '', keys 0, boot 0, secure ID ''";

BoardIdentity WithFamily(const std::string& family) {
  BoardIdentity board;
  board.family = family;
  return board;
}

struct Row {
  std::string name;
  std::string text;
  BoardIdentity expected;
};

void ExpectRows(const std::vector<Row>& rows) {
  const CapturedStderr silent;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Describe(ParseBoardIdentity(row.text)), Describe(row.expected));
  }
}

}  // namespace

TEST(BoardIdentity, IsUnknownWithoutLines) {
  EXPECT_EQ(Describe(BoardIdentity()), kNothing);
  EXPECT_EQ(Describe(ParseBoardIdentity("")), kNothing);
}

TEST(BoardIdentity, ReadsEveryKey) {
  EXPECT_EQ(Describe(ParseBoardIdentity("Revision: C\n"
                                        "Family: tiger\n"
                                        "ID: 0x12\n"
                                        "CFE-version: 7.1.46\n"
                                        "Secure-keys: 1\n"
                                        "Secure-boot: 1\n"
                                        "Secure-ID: 00ff-17\n")),
            "revision 3, board 18, family 'tiger', bootloader '7.1.46', keys 1, boot 1, secure ID '00ff-17'");
}

TEST(BoardIdentity, ReadsEachKeyAlone) {
  BoardIdentity revision, board_id, version, keys, boot, secure_id;
  revision.revision = 1;
  board_id.board_id = 5;
  version.bootloader_version = "v2";
  keys.secure_keys = true;
  boot.secure_boot = true;
  secure_id.secure_id = "s";
  ExpectRows({
      {"revision", "Revision: A", revision},
      {"family", "Family: f", WithFamily("f")},
      {"board", "ID: 5", board_id},
      {"CFE", "CFE-version: v2", version},
      {"BOLT", "BOLT-version: v2", version},
      {"keys", "Secure-keys: 1", keys},
      {"boot", "Secure-boot: 1", boot},
      {"secure ID", "Secure-ID: s", secure_id},
  });
}

TEST(BoardIdentity, LastLineOfAKeyWins) {
  BoardIdentity version;
  version.bootloader_version = "second";
  BoardIdentity keys;
  keys.secure_keys = false;
  ExpectRows({
      {"same key", "Family: first\nFamily: second\n", WithFamily("second")},
      {"CFE then BOLT", "CFE-version: first\nBOLT-version: second\n", version},
      {"BOLT then CFE", "BOLT-version: first\nCFE-version: second\n", version},
      {"a flag is cleared again", "Secure-keys: 1\nSecure-keys: 0\n", keys},
      {"an incomplete line is skipped", "Family: second\nFamily:\n", WithFamily("second")},
  });
}

TEST(BoardIdentity, SkipsLinesWithoutAKeyAndAValue) {
  ExpectRows({
      {"only a key", "Family:\n", BoardIdentity()},
      {"key and white space", "Family:   \t \n", BoardIdentity()},
      {"empty line", "\n", BoardIdentity()},
      {"white space", "  \t \n", BoardIdentity()},
      {"word", "Family\n", BoardIdentity()},
      {"no space after the key", "Family:x\n", BoardIdentity()},
      {"no colon", "Family x\n", BoardIdentity()},
      {"lower case", "family: x\n", BoardIdentity()},
      {"upper case", "FAMILY: x\n", BoardIdentity()},
      {"unknown key", "Colour: x\n", BoardIdentity()},
      {"longer key", "Family:: x\n", BoardIdentity()},
      {"prefix", "XFamily: x\n", BoardIdentity()},
      {"key as a value", "Colour: Family: x\n", BoardIdentity()},
      {"value on the next line", "Family:\nx\n", BoardIdentity()},
      {"key on the next line is not a value", "ID:\nFamily: x\n", WithFamily("x")},
      {"good line between bad ones", "junk\n\nFamily: x\n:\n", WithFamily("x")},
      {"NUL before the value", std::string("Family: \0x\n", 11), BoardIdentity()},
      {"NUL in the value", std::string("Family: x\0y\nSecret: z\n", 22), WithFamily("x")},
  });
}

TEST(BoardIdentity, AllowsAnyWhiteSpaceAroundKeyAndValue) {
  ExpectRows({
      {"no newline at the end", "Family: x", WithFamily("x")},
      {"CRLF", "Family: x\r\nFamily: y\r\n", WithFamily("y")},
      {"tab", "Family:\tx\n", WithFamily("x")},
      {"many spaces", "Family:      x      \n", WithFamily("x")},
      {"indented", "   Family: x\n", WithFamily("x")},
      {"third word", "Family: x y\n", WithFamily("x")},
      {"bytes above 0x7F", "Family: \xC3\xA9\xFF\n", WithFamily("\xC3\xA9\xFF")},
      {"percent", "Family: %s%n\n", WithFamily("%s%n")},
  });
}

TEST(BoardIdentity, CutsLongKeysAndValues) {
  const std::string longest(64, 'v');
  ExpectRows({
      {"longest value", "Family: " + longest + "\n", WithFamily(longest)},
      {"longer value", "Family: " + longest + "w\n", WithFamily(longest)},
      {"words after a longer value", "Family: " + longest + "www more\nID:\n", WithFamily(longest)},
      {"huge value", "Family: " + std::string(1000000, 'v') + "\n", WithFamily(longest)},
      {"longer value without a newline", "Family: " + longest + "w", WithFamily(longest)},
      {"longest key", std::string(20, 'k') + " x\n", BoardIdentity()},
      {"longer key whose rest is a key", std::string(20, 'k') + "Family: x\n", BoardIdentity()},
      {"longer key that begins like a key", "Family:" + std::string(14, 'k') + " x\n", BoardIdentity()},
      {"huge key", std::string(1000000, 'k') + "\nFamily: x\n", WithFamily("x")},
      {"huge key and value", std::string(1000000, 'k') + " y\nFamily: x\n", WithFamily("x")},
      {"value after many spaces", "Family:" + std::string(1000, ' ') + "x\n", WithFamily("x")},
  });
}

TEST(BoardIdentity, CountsRevisionsFromA) {
  for (int letter = 'A'; letter <= 'Z'; ++letter) {
    const std::string value(1, static_cast<char>(letter));
    SCOPED_TRACE(value);
    EXPECT_EQ(ParseBoardIdentity("Revision: " + value + "\n").revision, letter - 'A' + 1);
  }
  const struct {
    const char* name;
    const char* value;
    std::int32_t revision;
  } rows[] = {
      {"digit", "5", -11},           {"at sign", "@", 0},           {"small letter", "a", 33},
      {"minimum byte", "\x01", -63}, {"maximum byte", "\xFF", 191}, {"byte above 0x7F", "\x80", 64},
      {"first of two", "CA", 3},     {"first of a word", "B-2", 2},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(ParseBoardIdentity("Revision: " + std::string(row.value) + "\n").revision, row.revision);
  }
}

TEST(BoardIdentity, ParsesNumbersOfAnyBase) {
  const struct {
    const char* name;
    const char* value;
    std::int32_t number;
  } rows[] = {
      {"zero", "0", 0},
      {"decimal", "42", 42},
      {"hexadecimal", "0x2a", 42},
      {"upper case", "0X2A", 42},
      {"octal", "052", 42},
      {"not octal", "08", 0},
      {"not binary", "0b11", 0},
      {"only a prefix", "0x", 0},
      {"trailing junk", "42nd", 42},
      {"junk", "junk", 0},
      {"plus", "+42", 42},
      {"negative", "-2", -2},
      {"only a minus", "-", 0},
      {"maximum signed", "2147483647", 2147483647},
      {"above the maximum signed", "2147483648", INT32_MIN},
      {"maximum", "4294967295", -1},
      {"maximum in hexadecimal", "0xFFFFFFFF", -1},
      {"negative of the maximum signed", "-2147483647", -2147483647},
      {"minimum signed", "-2147483648", INT32_MIN},
      {"negative of the maximum", "-4294967295", 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string value(row.value);
    EXPECT_EQ(ParseBoardIdentity("ID: " + value + "\n").board_id, row.number);
    EXPECT_EQ(ParseBoardIdentity("Secure-keys: " + value + "\n").secure_keys, row.number != 0);
    EXPECT_EQ(ParseBoardIdentity("Secure-boot: " + value + "\n").secure_boot, row.number != 0);
  }
}

TEST(BoardIdentity, ReadsANumberThatDoesNotFitAsTheMaximum) {
  // A strtoul with 32 bits returns the maximum. A strtoul with 64 bits would negate the first four negative numbers.
  for (const std::string value :
       {"4294967296", "0x100000000", "99999999999999999999999", "-4294967296", "-4294967297", "-8589934592",
        "-18446744073709551615", "-18446744073709551616", "-99999999999999999999999"}) {
    SCOPED_TRACE(value);
    EXPECT_EQ(ParseBoardIdentity("ID: " + value).board_id, -1);
    EXPECT_TRUE(ParseBoardIdentity("Secure-keys: " + value).secure_keys);
    EXPECT_TRUE(ParseBoardIdentity("Secure-boot: " + value).secure_boot);
  }
}

TEST(BoardIdentityFile, IsReadCompletely) {
  const TempDir dir;
  WriteTextFile(dir / "boardid", "Revision: B\n" + std::string(5000, '\n') + "Family: lion");
  EXPECT_EQ(Describe(ReadBoardIdentity((dir / "boardid").c_str())),
            "revision 2, board -1, family 'lion', bootloader '', keys 0, boot 0, secure ID ''");
}

TEST(BoardIdentityFile, KeepsTheDefaultsSilentlyWhenItCannotBeRead) {
  const TempDir dir;
  WriteTextFile(dir / "file", "Family: x\n");
  const CapturedStderr silent;
  EXPECT_EQ(Describe(ReadBoardIdentity((dir / "missing").c_str())), kNothing);
  EXPECT_EQ(Describe(ReadBoardIdentity((dir / "file/x").c_str())), kNothing);
  EXPECT_EQ(Describe(ReadBoardIdentity(dir.Path().c_str())), kNothing) << "a directory";
  EXPECT_EQ(Describe(ReadBoardIdentity("/proc")), kNothing) << "a directory without a size";
  EXPECT_EQ(Describe(ReadBoardIdentity("/proc/self/mem")), kNothing) << "a file that fails when it is read";
}

TEST(BoardIdentityFile, IsProcBoardidByDefault) {
  const TempDir proc;
  WriteTextFile(proc / "boardid", "Family: panther\n");
  const test_support::BoundOver bound(proc.Path(), "/proc");
  EXPECT_EQ(ReadBoardIdentity().family, "panther");
}
