#include "client/merge_warnings.h"

#include "tests/unit/client/client_fixture.h"

namespace ledgerctl {
namespace {

using Lines = std::vector<std::string>;

TEST(SpellingWarnings, HaveEachGroupOfNamesThatFoldToTheSame) {
  EXPECT_EQ(SpellingWarnings(ParseMerge(R"({"s":{"K":"1","k":"2","l":"3"},"U":{},"u":null})", "x")),
            (Lines{"several spellings of key 'k' in section 's'; the last one in byte order wins",
                   "several spellings of section 'u'; they are one section"}));
}

TEST(RefuseLosses, ReportsWhatARestartLoses) {
  std::string refusal = "ledgerctl: ";
  std::string warnings;
  for (const std::string loss :
       {"key '' in section 's' (without name and value)", "key '[x' in section 's' (begins with \"[\")",
        "key $'m\\x00' in section 's' (and everything after it: a NUL byte)",
        "key 'n' in section 's' (and everything after it: a NUL byte)",
        "section $'t\\x00' (and everything after it: a NUL byte)"}) {
    refusal += "lost at a restart: " + loss + "\n";
    warnings += "ledgerctl: warning: lost at a restart: " + loss + "\n";
  }
  refusal += "Nothing changed. Use --force to accept the loss.\n";

  const char* const document =
      R"({"a":null,"s":{"[x":"1","m\u0000":"","n":"a\u0000b","":"","ok":"[","gone":null},"t\u0000":{}})";
  const test_client::MemoryFile file;
  const auto refuse_losses = [&](bool force) {
    RefuseLosses(ParseMerge(document, "x"), force, ExitStatus::NotADocument, Messages(file.Fd(), false));
  };
  EXPECT_EQ(test_client::FailureOf([&] { refuse_losses(false); }), test_client::Outcome(4, "", refusal));
  EXPECT_EQ(file.Text(), "");
  refuse_losses(true);
  EXPECT_EQ(file.Text(), warnings);
}

TEST(RefuseLosses, AcceptsWhatTheFileKeeps) {
  const test_client::MemoryFile file;
  const char* const document =
      R"({"s":{"k":"[","a[":"","[gone":null,"":"x","n\u0000":null,"[U":"set first","[u":null},"e":{})"
      R"(,"[t":{"a=b":"\n"}})";
  RefuseLosses(ParseMerge(document, "x"), false, ExitStatus::NotADocument, Messages(file.Fd(), false));
  EXPECT_EQ(file.Text(), "");
}

TEST(DropUnreachable, RemovesNamesOfAFileThatWasEditedByHand) {
  RegistrySections sections = {{"Net", {{"k", "v"}}}, {"net", {{"IP", "1"}, {"ip", "2"}}}};
  EXPECT_EQ(DropUnreachable(sections), (Lines{"no caller can reach section 'Net': not lower-case ASCII",
                                              "no caller can reach key 'IP' in section 'net': not lower-case ASCII"}));
  EXPECT_EQ(sections, (RegistrySections{{"net", {{"ip", "2"}}}}));
}

}  // namespace
}  // namespace ledgerctl
