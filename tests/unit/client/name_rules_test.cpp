#include "client/name_rules.h"

#include <gtest/gtest.h>

#include "registry/registry.h"

namespace ledgerctl {
namespace {

TEST(NameRules, FoldsWhatTheDaemonFolds) {
  EXPECT_EQ(FoldName("Network"), "network");
  EXPECT_EQ(FoldName("@AZ[`az{"), "@az[`az{");
  EXPECT_EQ(FoldName(""), "");
  const std::string with_nul("A\0B", 3);
  EXPECT_EQ(FoldName(with_nul), std::string("a\0b", 3));
}

TEST(NameRules, RefusesEveryByteAboveAscii) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string name = {'a', static_cast<char>(byte)};
    if (byte < 0x80) {
      EXPECT_NO_THROW(CheckName(name)) << byte;
    } else {
      EXPECT_THROW(CheckName(name), Registry::InvalidName) << byte;
      EXPECT_THROW(FoldName(name), Registry::InvalidName) << byte;
    }
  }
}

TEST(NameRules, KnowsWhatNoCallerCanReach) {
  EXPECT_TRUE(IsReachable("a.b/c=[]"));
  EXPECT_TRUE(IsReachable(""));
  EXPECT_FALSE(IsReachable("Net"));
  EXPECT_FALSE(IsReachable("gr\xc3\xb6n"));
}

}  // namespace
}  // namespace ledgerctl
