#include "client/merge_warnings.h"

#include <gtest/gtest.h>

#include "client/failure.h"
#include "tests/unit/client/client_fixture.h"

namespace ledgerctl {
namespace {

TEST(SpellingWarnings, NameWhatFoldsTogether) {
  const std::vector<std::string> expected = {
      "several spellings of key 'k' in section 's'; the last one in byte order wins",
      "several spellings of section 'u'; they are one section",
  };
  EXPECT_EQ(SpellingWarnings(ParseMerge(R"({"s":{"K":"1","k":"2","l":"3"},"U":{},"u":null})", "x")), expected);
}

TEST(RefuseLosses, NamesWhatARestartLoses) {
  const std::string losses[] = {
      "lost at a restart: key '' in section 's' (without name and value)",
      "lost at a restart: key '[x' in section 's' (begins with \"[\")",
      "lost at a restart: key $'m\\x00' in section 's' (and everything after it: a NUL byte)",
      "lost at a restart: key 'n' in section 's' (and everything after it: a NUL byte)",
      "lost at a restart: section $'t\\x00' (and everything after it: a NUL byte)",
  };
  std::string refusal;
  std::string warnings;
  for (const std::string& loss : losses) {
    refusal += loss + "\n";
    warnings += "ledgerctl: warning: " + loss + "\n";
  }
  refusal += "Nothing changed. Use --force to accept the loss.";

  const Merge merge = ParseMerge(
      R"({"a":null,"s":{"[x":"1","m\u0000":"","n":"a\u0000b","":"","ok":"[","gone":null},"t\u0000":{}})", "x");
  const test_client::MemoryFile file;
  const Messages messages(file.Fd(), false);
  try {
    RefuseLosses(merge, false, ExitStatus::NotADocument, messages);
    ADD_FAILURE() << "nothing thrown";
  } catch (const Failure& e) {
    EXPECT_EQ(e.Status(), ExitStatus::NotADocument);
    EXPECT_EQ(e.what(), refusal);
  }
  EXPECT_EQ(file.Text(), "");
  RefuseLosses(merge, true, ExitStatus::NotADocument, messages);
  EXPECT_EQ(file.Text(), warnings);
}

TEST(RefuseLosses, AcceptsWhatTheFileKeeps) {
  const test_client::MemoryFile file;
  const char* const document =
      R"({"s":{"k":"[","a[":"","[gone":null,"":"x","n\u0000":null,"[U":"set first","[u":null},"e":{},"[t":{"a=b":"\n"}})";
  RefuseLosses(ParseMerge(document, "x"), false, ExitStatus::NotADocument, Messages(file.Fd(), false));
  EXPECT_EQ(file.Text(), "");
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
