// The verbs that show the registry.
#include "tests/unit/client/client_fixture.h"

namespace test_client {
namespace {

using ViewVerbs = ClientTest;

TEST_F(ViewVerbs, ListPrintsNames) {
  back_end->WriteJson(R"({"b c":{"k\n":"","j":"v"},"a":{"x":"y"}})");
  EXPECT_EQ(Run({"list"}), Prints("a\nb c\n"));
  EXPECT_EQ(registry.TakeCalls(), (Calls{"SectionList"}));
  EXPECT_EQ(Run({"list", "B C"}), Prints("j\nk\n\n"));
  EXPECT_EQ(registry.TakeCalls(), (Calls{"KeyList"}));
  EXPECT_EQ(Run({"list", "-0", "b c"}), Prints(std::string("j\0k\n\0", 5)));
  EXPECT_EQ(Run({"list", "--json"}), Prints("[\"a\",\"b c\"]\n"));
  EXPECT_EQ(Run({"list", "--json", "b c"}), Prints("[\"j\",\"k\\n\"]\n"));
}

TEST_F(ViewVerbs, DistinguishAnEmptySectionFromNone) {
  EXPECT_EQ(Run({"list"}), Prints(""));
  EXPECT_EQ(Run({"list", "--json"}), Prints("[]\n"));
  EXPECT_EQ(Run({"show"}), Prints(""));
  EXPECT_EQ(Run({"show", "--json"}), Prints("{}\n"));
  back_end->Write("s", "k", "v");
  back_end->DeleteKey("s", "k");
  EXPECT_EQ(Run({"list", "s"}), Prints(""));
  EXPECT_EQ(Run({"list", "--json", "s"}), Prints("[]\n"));
  EXPECT_EQ(Run({"show", "s"}), Prints("[s]\n"));
  EXPECT_EQ(Run({"show", "--json", "s"}), Prints("{}\n"));
  EXPECT_EQ(Run({"show", "--json"}), Prints("{\n  \"s\": {}\n}\n"));
  EXPECT_EQ(Run({"list", "t"}), Fails(1, "no section 't'"));
  EXPECT_EQ(Run({"show", "t"}), Fails(1, "no section 't'"));
}

TEST_F(ViewVerbs, ShowQuotesForAShell) {
  back_end->WriteJson(R"({"b c":{"[k":"it's"},"net":{"dhcp":"","ip":"10.0.0.1"}})");
  EXPECT_EQ(Run({"show"}), Prints("['b c']\n'[k'='it'\\''s'\n\n[net]\ndhcp=\nip=10.0.0.1\n"));
  EXPECT_EQ(Run({"show", "Net"}), Prints("[net]\ndhcp=\nip=10.0.0.1\n"));
  EXPECT_EQ(Run({"show", "--json", "Net"}), Prints("{\"dhcp\":\"\",\"ip\":\"10.0.0.1\"}\n"));
  EXPECT_EQ(Run({"show", "--json"}), Prints(R"({
  "b c": {
    "[k": "it's"
  },
  "net": {
    "dhcp": "",
    "ip": "10.0.0.1"
  }
}
)"));
}

TEST_F(ViewVerbs, UsageCountsTheBytesOfTheFile) {
  EXPECT_EQ(Run({"usage"}), Prints("0 of 16383 bytes used (0 %), 16383 free\n"));
  EXPECT_EQ(Run({"usage", "--json"}), Prints("{\"used\":0,\"capacity\":16383,\"sections\":{}}\n"));
  back_end->WriteJson(R"({"a":{"k":"%=[\n"},"net]":{"=":""}})");
  EXPECT_EQ(back_end.FlushedText().size(), 28u);
  EXPECT_EQ(Run({"usage", "--json"}), Prints("{\"used\":28,\"capacity\":16383,\"sections\":{\"a\":15,\"net]\":13}}\n"));
}

TEST_F(ViewVerbs, UsageFailsAboveAPercentage) {
  // 8192 of 16383 bytes: 50.003 %.
  back_end->Write("s", "k", std::string(8192 - 7, 'x'));
  const std::string text = std::get<1>(Run({"usage"}));
  const std::string json = std::get<1>(Run({"usage", "--json"}));
  for (const auto& [percent, status] : {std::pair("0", 1), {"50", 1}, {"50.003", 1}, {"50.01", 0}, {"100", 0}}) {
    SCOPED_TRACE(percent);
    EXPECT_EQ(Run({"usage", "--fail-above", percent}), Outcome(status, text, ""));
    EXPECT_EQ(Run({"-q", "usage", "--json", "--fail-above", percent}), Outcome(status, json, ""));
  }
  back_end->DeleteAll();
  EXPECT_EQ(std::get<0>(Run({"usage", "--fail-above", "0"})), 0);
}

TEST_F(ViewVerbs, UsagePrintsTheLargestSectionFirstWithin80Columns) {
  back_end->Write(std::string(30, 's'), "k", "v");
  back_end->Write("half", "k", std::string(8000, 'x'));
  back_end->Write(std::string(100, 'n'), "k", std::string(1000, 'x'));
  EXPECT_EQ(Run({"usage"}), Prints("9153 of 16383 bytes used (56 %), 7230 free\n"
                                   "  8010  half                            ###################\n"
                                   "  1106  nnnnnnnnnnnnnnnnnnnnnnnnnnn...  ###\n"
                                   "    37  ssssssssssssssssssssssssssssss\n"));
  back_end->DeleteAll();
  back_end->Write("a", "k", std::string(16383 - 7, 'x'));
  EXPECT_EQ(Run({"usage"}),
            Prints("16383 of 16383 bytes used (100 %), 0 free\n 16383  a  " + std::string(68, '#') + "\n"));
}

// A hand can make the file too large, and write a name that must not be cut within a character.
TEST_F(ViewVerbs, UsageAcceptsAFileThatWasEditedByHand) {
  std::string letters;
  for (int i = 0; i < 14; ++i) {
    letters += "\xc3\xb6";
  }
  BackEnd edited("[a" + letters + "]\nk=" + std::string(19965, 'x') + "\n", 30000);
  EXPECT_EQ(RunOn(*edited.registry, {"usage"}), Prints("20000 of 16383 bytes used (122 %), 0 free\n 20000  'a" +
                                                       letters.substr(4) + "...  " + std::string(40, '#') + "\n"));
}

}  // namespace
}  // namespace test_client
