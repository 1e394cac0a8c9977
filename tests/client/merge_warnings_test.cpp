#include "client/merge_warnings.h"

#include <gtest/gtest.h>

namespace ledgerctl {
namespace {

TEST(MergeWarnings, NameWhatARestartLoses) {
  const auto warnings = MergeWarnings(ParseMerge(
      R"({"a":null,"s":{"[x":"1","m\u0000":"","n":"a\u0000b","":"","ok":"[","gone":null,"K":"1","k":"2"},"t\u0000":{},
         "U":{},"u":null})",
      "x"));
  const std::vector<std::string> expected = {
      "lost at a restart: key '' in section 's' (without name and value)",
      "lost at a restart: key '[x' in section 's' (begins with \"[\")",
      "lost at a restart: key $'m\\x00' in section 's' (and all behind it: a NUL byte)",
      "lost at a restart: key 'n' in section 's' (and all behind it: a NUL byte)",
      "several spellings of key 'k' in section 's'; the last one in byte order wins",
      "lost at a restart: section $'t\\x00' (and all behind it: a NUL byte)",
      "several spellings of section 'u'; they are one section",
  };
  EXPECT_EQ(warnings, expected);
  EXPECT_TRUE(MergeWarnings(ParseMerge(R"({"s":{"k":"[","[gone":null,"":"x"},"e":{}})", "x")).empty());
}

TEST(DropUnreachable, TakesNamesOfAFileThatWasEditedByHand) {
  RegistrySections sections = {{"Net", {{"k", "v"}}}, {"net", {{"IP", "1"}, {"ip", "2"}}}};
  const auto dropped = DropUnreachable(sections);
  EXPECT_EQ(sections, (RegistrySections{{"net", {{"ip", "2"}}}}));
  const std::vector<std::string> expected = {
      "out of reach, not lower-case ASCII: section 'Net'",
      "out of reach, not lower-case ASCII: key 'IP' in section 'net'",
  };
  EXPECT_EQ(dropped, expected);
}

}  // namespace
}  // namespace ledgerctl
