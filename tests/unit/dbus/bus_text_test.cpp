#include "dbus/bus_text.h"

#include <gtest/gtest.h>

#include <string>

#include "dbus/registry_errors.h"

namespace {

constexpr std::size_t kMiB = 1024 * 1024;

class ReplyCheckTest : public testing::Test {
protected:
  void Check(const std::string& text) {
    m_check.Check(text, [&] {
      ++m_meanings;
      return "value of key 'k'";
    });
  }

  std::string ErrorOf(const std::string& text) {
    try {
      Check(text);
    } catch (const RegistryError& e) {
      EXPECT_STREQ(e.name(), RegistryError::kException);
      return e.message();
    }
    return "";
  }

  int m_meanings = 0;
  ReplyCheck m_check;
};

TEST_F(ReplyCheckTest, AcceptsUtf8WithoutNul) {
  const std::string rows[] = {"", "plain", "caf\xC3\xA9", "\xF0\x9F\x98\x80", "\x01\x7F\r\n\t", "\xEF\xBF\xBF"};
  for (const std::string& row : rows) {
    SCOPED_TRACE(row);
    EXPECT_NO_THROW(Check(row));
  }
  EXPECT_EQ(m_meanings, 0);
}

TEST_F(ReplyCheckTest, RefusesInvalidUtf8AndNamesTheString) {
  const std::string rows[] = {"\x80", "caf\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "a\xFFz"};
  for (const std::string& row : rows) {
    SCOPED_TRACE(row);
    EXPECT_EQ(ErrorOf(row), "D-Bus cannot carry the value of key 'k': it is not UTF-8");
  }
}

TEST_F(ReplyCheckTest, RefusesOneInvalidByteAtAnyPosition) {
  for (std::size_t size = 1; size <= 20; ++size) {
    for (std::size_t position = 0; position < size; ++position) {
      std::string text(size, '\x7F');
      text[position] = '\x80';
      EXPECT_NE(ErrorOf(text), "") << position << " of " << size;
    }
  }
}

TEST_F(ReplyCheckTest, RefusesANulByteInsteadOfCuttingTheText) {
  EXPECT_EQ(ErrorOf(std::string("a\0b", 3)), "D-Bus cannot carry the value of key 'k': it holds a NUL byte");
  EXPECT_EQ(ErrorOf(std::string("\0", 1)), "D-Bus cannot carry the value of key 'k': it holds a NUL byte");
}

// In a reply of many short strings most bytes are lengths, terminators and padding. ReplyCheck counts 16 bytes for each
// string.
TEST_F(ReplyCheckTest, RefusesAReplyThatIsTooLongForTheBus) {
  constexpr std::size_t kRoom = 32 * kMiB - 64 * 1024;
  const struct {
    const char* name;
    std::size_t text;
    std::size_t others;  // strings of one byte that fit before it
  } rows[] = {
      {"no other string", kRoom - 16, 0}, {"after a short one", kRoom - 16 - 17, 1}, {"after many", 1, kRoom / 17 - 1}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    m_check = ReplyCheck();
    for (std::size_t i = 0; i < row.others; ++i) {
      Check("x");
    }
    EXPECT_EQ(ErrorOf(std::string(row.text, 'x')), "");
    EXPECT_EQ(ErrorOf("x"), "D-Bus cannot carry the value of key 'k': it makes the reply too long");
  }
}

}  // namespace
