#include "registry/name_rules.h"

#include <gtest/gtest.h>

#include "registry/registry.h"

namespace {

TEST(NameRules, FoldUpperCaseLettersOfAsciiOnly) {
  EXPECT_EQ(FoldName("@AZ[`az{"), "@az[`az{");
  EXPECT_EQ(FoldName(""), "");
  EXPECT_EQ(FoldName(std::string("A\0B", 3)), std::string("a\0b", 3));
}

TEST(NameRules, RefuseEveryByteAboveAscii) {
  for (int byte = 0; byte < 256; ++byte) {
    SCOPED_TRACE(byte);
    const std::string name = {'a', static_cast<char>(byte)};
    if (byte < 0x80) {
      EXPECT_NO_THROW(CheckName(name));
      EXPECT_EQ(IsReachable(name), FoldName(name) == name);
    } else {
      EXPECT_THROW(CheckName(name), Registry::InvalidName);
      EXPECT_THROW(FoldName(name), Registry::InvalidName);
      EXPECT_FALSE(IsReachable(name));
    }
  }
  EXPECT_TRUE(IsReachable(""));
}

}  // namespace
