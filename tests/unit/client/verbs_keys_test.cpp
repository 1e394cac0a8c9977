// The verbs for single keys.
#include <fcntl.h>

#include "lib/platform/posix_helpers.h"
#include "tests/unit/client/client_fixture.h"

namespace test_client {
namespace {

using KeyVerbs = ClientTest;

TEST_F(KeyVerbs, GetPrintsTheValueAsItIs) {
  back_end->Write("s", "k", "a\nb\033 'c'\\");
  EXPECT_EQ(Run({"get", "S", "K"}), Prints("a\nb\033 'c'\\\n"));
  EXPECT_EQ(Run({"get", "-0", "s", "k"}), Prints(std::string("a\nb\033 'c'\\\0", 10)));
  EXPECT_EQ(Run({"get", "--json", "s", "k"}), Prints("\"a\\nb\\u001b 'c'\\\\\"\n"));
}

TEST_F(KeyVerbs, GetTellsMissingFromEmpty) {
  back_end->Write("s", "empty", "");
  EXPECT_EQ(Run({"get", "s", "empty"}), Prints("\n"));
  EXPECT_EQ(Run({"get", "s", "empty", "--default", "d"}), Prints("\n"));
  EXPECT_EQ(Run({"get", "s", "k"}), (Outcome{1, "", "ledgerctl: no key 'k' in section 's'\n"}));
  EXPECT_EQ(Run({"get", "t", "k"}), (Outcome{1, "", "ledgerctl: no key 'k' in section 't'\n"}));
  EXPECT_EQ(Run({"get", "s", "k", "--default", "d"}), Prints("d\n"));
  EXPECT_EQ(Run({"get", "s", "k", "--default", "", "--json"}), Prints("\"\"\n"));
}

TEST_F(KeyVerbs, GetAsksAgainForAnEmptyValueOnly) {
  back_end->Write("s", "k", "v");
  back_end->Write("s", "empty", "");
  Run({"get", "s", "k"});
  EXPECT_EQ(registry.TakeCalls(), (Calls{"Read"}));
  Run({"get", "s", "empty"});
  EXPECT_EQ(registry.TakeCalls(), (Calls{"Read", "KeyExists"}));
}

TEST_F(KeyVerbs, SetWritesTheValueUnchanged) {
  EXPECT_EQ(Run({"set", "S", "K", "a\nb"}), Prints(""));
  EXPECT_EQ(registry.TakeCalls(), (Calls{"Write"}));
  EXPECT_EQ(back_end->Read("s", "k"), "a\nb");
  const StandardInput input("line\n\n");
  EXPECT_EQ(Run({"set", "--", "s", "k=1", "-"}), Prints(""));
  EXPECT_EQ(back_end->Read("s", "k=1"), "-");
  EXPECT_EQ(Run({"set", "s", "k", "-"}), Prints(""));
  EXPECT_EQ(back_end->Read("s", "k"), "line\n\n");
}

TEST_F(KeyVerbs, SetFlushesIfAsked) {
  EXPECT_EQ(Run({"set", "s", "k", "v"}), Prints(""));
  EXPECT_EQ(back_end.store->Text(), "");
  EXPECT_EQ(Run({"set", "--flush", "s", "k", "v"}), Prints(""));
  EXPECT_EQ(back_end.store->Text(), "[s]\nk=v\n");
}

TEST_F(KeyVerbs, SetWritesSeveralPairsByOneCallAndAtOnce) {
  back_end->Write("s", "old", "1");
  const StandardInput input("\"\\\xc3\xb6\n");
  EXPECT_EQ(Run({"set", "S", "B", "-", "a", "", "-c", "-5", "--force", "--"}), Prints(""));
  EXPECT_EQ(registry.TakeCalls(), (Calls{"WriteJson"}));
  EXPECT_EQ(back_end.store->Text(), "[s]\n--force=--\n-c=-5\na\nb=\"\\\xc3\xb6%0a\nold=1\n");
}

TEST_F(KeyVerbs, SetChangesAllPairsOrNone) {
  EXPECT_EQ(Run({"set", "s", "a", "1", "b", std::string(16383, 'x')}),
            (Outcome{5, "", "ledgerctl: registry full (16383 bytes); nothing changed\n"}));
  EXPECT_EQ(Run({"set", "s", "a", "1", "b", "\xff"}),
            (Outcome{2, "", "ledgerctl: D-Bus cannot carry the value of key 'b' in section 's': it is not UTF-8\n"}));
  EXPECT_EQ(Run({"set", "s", "a", "1", "\xff", "2"}).status, 3);
  EXPECT_FALSE(back_end->SectionExists("s"));
}

TEST_F(KeyVerbs, SetRefusesWhatARestartLosesUnlessForced) {
  const std::string bracket = "lost at a restart: key '[k' in section 's' (begins with \"[\")\n";
  const std::string empty = "lost at a restart: key '' in section 's' (without name and value)\n";
  struct Row {
    std::vector<std::string> pairs;
    std::vector<std::string> losses;
  };
  const Row rows[] = {{{"[k", "v"}, {bracket}},
                      {{"[k", "v", "a", "b"}, {bracket}},
                      {{"a", "b", "", "", "[k", "v"}, {empty, bracket}},
                      {{"", ""}, {empty}},
                      {{"", "v"}, {}},
                      {{"k[", ""}, {}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.pairs.front());
    back_end->DeleteAll();
    std::vector<std::string> words = {"set", "s"};
    words.insert(words.end(), row.pairs.begin(), row.pairs.end());
    std::string refusal = "ledgerctl: ";
    std::string warnings;
    for (const std::string& loss : row.losses) {
      refusal += loss;
      warnings += "ledgerctl: warning: " + loss;
    }
    refusal += "Nothing changed. Use --force to accept the loss.\n";
    const Outcome refused = row.losses.empty() ? Prints("") : Outcome{3, "", refusal};
    EXPECT_EQ(Run(words), refused);
    EXPECT_EQ(back_end->KeyExists("s", row.pairs.front()), row.losses.empty());
    words.insert(words.begin() + 1, "--force");
    EXPECT_EQ(Run(words), (Outcome{0, "", warnings}));
    EXPECT_TRUE(back_end->KeyExists("s", row.pairs.front()));
    words.insert(words.begin(), "-q");
    EXPECT_EQ(Run(words), Prints(""));
  }
}

TEST_F(KeyVerbs, SetRefusesANulByteAlsoIfForced) {
  for (const std::vector<std::string>& more : {std::vector<std::string>{}, {"l", "v"}}) {
    const StandardInput input(std::string("a\0b", 3));
    std::vector<std::string> words = {"set", "--force", "s", "k", "-"};
    words.insert(words.end(), more.begin(), more.end());
    EXPECT_EQ(
        Run(words),
        (Outcome{3, "", "ledgerctl: D-Bus cannot carry the value of key 'k' in section 's': it holds a NUL byte\n"}));
    EXPECT_EQ(registry.TakeCalls(), Calls());
  }
}

// The daemon would keep an empty section of it.
TEST_F(KeyVerbs, RefuseABadNameBeforeTheyCall) {
  const std::string bad = "gr\xc3\xb6n";
  const Outcome refused = {3, "", "ledgerctl: invalid name 'gr\xc3\xb6n': only ASCII is allowed\n"};
  const std::vector<std::vector<std::string>> rows = {
      {"get", "s", bad},      {"get", bad, "k"},   {"set", "s", bad, "v"},
      {"set", bad, "k", "v"}, {"exists", bad},     {"set", bad, "k", "v", "l", "w"},
      {"exists", "s", bad},   {"unset", "s", bad}, {"unset", "-r", bad},
      {"list", bad},          {"show", bad},       {"edit", bad},
      {"watch", bad},         {"watch", "s", bad},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.front());
    EXPECT_EQ(Run(row), refused);
    EXPECT_EQ(registry.TakeCalls(), Calls());
  }
}

TEST_F(KeyVerbs, ExistsAnswersByItsStatus) {
  back_end->Write("s", "k", "");
  EXPECT_EQ(Run({"exists", "S"}), Prints(""));
  EXPECT_EQ(Run({"exists", "S", "K"}), Prints(""));
  EXPECT_EQ(Run({"exists", "t"}), (Outcome{1, "", ""}));
  EXPECT_EQ(Run({"exists", "s", "l"}), (Outcome{1, "", ""}));
  EXPECT_EQ(Run({"exists", "--json", "s"}), Prints("true\n"));
  EXPECT_EQ(Run({"exists", "--json", "t"}), (Outcome{1, "false\n", ""}));
}

TEST_F(KeyVerbs, UnsetDeletesWhatItIsTold) {
  back_end->WriteJson(R"({"s":{"k":"1","l":"2"},"t":{"k":"3"}})");
  EXPECT_EQ(Run({"unset", "S", "K"}), Prints(""));
  EXPECT_EQ(Run({"unset", "s", "k"}), (Outcome{1, "", "ledgerctl: no key 'k' in section 's'\n"}));
  EXPECT_EQ(Run({"unset", "-r", "T"}), Prints(""));
  EXPECT_EQ(Run({"unset", "-r", "t"}), (Outcome{1, "", "ledgerctl: no section 't'\n"}));
  EXPECT_EQ(Run({"unset", "s"}).status, 2);
  EXPECT_EQ(back_end.FlushedText(), "[s]\nl=2\n");
}

TEST_F(KeyVerbs, ClearWantsToBeConfirmed) {
  back_end->Write("s", "k", "v");
  EXPECT_EQ(Run({"clear"}).status, 2);
  EXPECT_EQ(registry.TakeCalls(), Calls());
  EXPECT_EQ(Run({"clear", "--yes"}), Prints(""));
  EXPECT_EQ(back_end.FlushedText(), "");
}

TEST_F(KeyVerbs, FlushFlushes) {
  back_end->Write("s", "k", "v");
  EXPECT_EQ(Run({"flush"}), Prints(""));
  EXPECT_EQ(back_end.store->Text(), "[s]\nk=v\n");
}

TEST_F(KeyVerbs, SayThatAFullRegistryIsUnchanged) {
  back_end->Write("s", "k", "v");
  EXPECT_EQ(Run({"set", "s", "k", std::string(16383, 'x')}),
            (Outcome{5, "", "ledgerctl: registry full (16383 bytes); nothing changed\n"}));
  EXPECT_EQ(back_end->Read("s", "k"), "v");
}

TEST_F(KeyVerbs, FailWhenNobodyGetsTheResult) {
  back_end->Write("s", "k", "v");
  const bramble::FileDescriptor full = bramble::Open("/dev/full", O_WRONLY);
  const MemoryFile error;
  EXPECT_EQ(RunOn(registry, {"get", "s", "k"}, full.Get(), error.Fd()), 10);
  EXPECT_EQ(error.Text(), "ledgerctl: standard output: No space left on device\n");
}

}  // namespace
}  // namespace test_client
