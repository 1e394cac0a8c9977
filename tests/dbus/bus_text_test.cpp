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

private:
  ReplyCheck m_check;
};

TEST_F(ReplyCheckTest, CarriesWhateverIsUtf8WithoutNul) {
  const std::string rows[] = {"", "plain", "caf\xC3\xA9", "\xF0\x9F\x98\x80", "\x01\x7F\r\n\t", "\xEF\xBF\xBF"};
  for (const std::string& row : rows) {
    SCOPED_TRACE(row);
    EXPECT_NO_THROW(Check(row));
  }
  EXPECT_EQ(m_meanings, 0);
}

TEST_F(ReplyCheckTest, RefusesWhatIsNotUtf8AndSaysWhichStringIsMeant) {
  const std::string rows[] = {"\x80", "caf\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "a\xFFz"};
  for (const std::string& row : rows) {
    SCOPED_TRACE(row);
    EXPECT_EQ(ErrorOf(row), "D-Bus cannot carry the value of key 'k': it is not UTF-8");
  }
}

TEST_F(ReplyCheckTest, RefusesANulByteInsteadOfCuttingThere) {
  EXPECT_EQ(ErrorOf(std::string("a\0b", 3)), "D-Bus cannot carry the value of key 'k': it holds a NUL byte");
  EXPECT_EQ(ErrorOf(std::string("\0", 1)), "D-Bus cannot carry the value of key 'k': it holds a NUL byte");
}

TEST_F(ReplyCheckTest, RefusesAReplyThatTheBusWouldDisconnectUsFor) {
  EXPECT_EQ(ErrorOf(std::string(31 * kMiB, 'x')), "");
  EXPECT_EQ(ErrorOf(std::string(1 * kMiB, 'x')),
            "D-Bus cannot carry the value of key 'k': it makes the reply too long");
}

}  // namespace
