#include "dbus/bus_text.h"

#include <gtest/gtest.h>

#include <string>

#include "dbus/registry_errors.h"

namespace {

using namespace std::string_literals;

constexpr std::size_t kMiB = 1024 * 1024;

// Returns the text of the error, or "" if the check accepts the text.
std::string ErrorOf(const std::string& text, ReplyCheck& check) {
  bool is_named = false;
  try {
    check.Check(text, [&] {
      is_named = true;
      return "VALUE";
    });
  } catch (const RegistryError& e) {
    EXPECT_STREQ(e.name(), RegistryError::kException);
    return e.message();
  }
  EXPECT_FALSE(is_named);
  return "";
}

std::string ErrorOf(const std::string& text) {
  ReplyCheck check;
  return ErrorOf(text, check);
}

TEST(ReplyCheck, AcceptsUtf8WithoutNul) {
  for (const char* text : {"", "plain", "caf\xC3\xA9", "\xF0\x9F\x98\x80", "\x01\x7F\r\n\t", "\xEF\xBF\xBF"}) {
    EXPECT_EQ(ErrorOf(text), "") << text;
  }
}

TEST(ReplyCheck, RefusesInvalidUtf8AndNamesTheString) {
  for (const char* text : {"\x80", "caf\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "a\xFFz"}) {
    EXPECT_EQ(ErrorOf(text), "D-Bus cannot carry the VALUE: it is not UTF-8") << text;
  }
  for (std::size_t size = 1; size <= 20; ++size) {
    for (std::size_t position = 0; position < size; ++position) {
      std::string text(size, '\x7F');
      text[position] = '\x80';
      EXPECT_NE(ErrorOf(text), "") << position << " of " << size;
    }
  }
}

TEST(ReplyCheck, RefusesANulByteInsteadOfCuttingTheText) {
  EXPECT_EQ(ErrorOf("a\0b"s), "D-Bus cannot carry the VALUE: it holds a NUL byte");
  EXPECT_EQ(ErrorOf("\0"s), "D-Bus cannot carry the VALUE: it holds a NUL byte");
}

// In a reply of many short strings most bytes are lengths, terminators and padding. ReplyCheck counts 16 bytes for each
// string.
TEST(ReplyCheck, RefusesAReplyThatIsTooLongForTheBus) {
  constexpr std::size_t kRoom = 32 * kMiB - 64 * 1024;
  const struct {
    const char* name;
    std::size_t text;
    std::size_t others;  // strings of one byte that fit before it
  } rows[] = {
      {"no other string", kRoom - 16, 0}, {"after a short one", kRoom - 16 - 17, 1}, {"after many", 1, kRoom / 17 - 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ReplyCheck check;
    for (std::size_t i = 0; i < row.others; ++i) {
      ASSERT_EQ(ErrorOf("x", check), "");
    }
    EXPECT_EQ(ErrorOf(std::string(row.text, 'x'), check), "");
    EXPECT_EQ(ErrorOf("x", check), "D-Bus cannot carry the VALUE: it makes the reply too long");
  }
}

}  // namespace
