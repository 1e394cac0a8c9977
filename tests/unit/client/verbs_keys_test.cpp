// The verbs for single keys.
#include <regex>

#include "tests/unit/client/client_fixture.h"

namespace test_client {
namespace {

using KeyVerbs = ClientTest;

const Outcome kFull = Fails(5, "registry full (16383 bytes); nothing changed");

TEST_F(KeyVerbs, GetPrintsTheValueUnchanged) {
  back_end->Write("s", "k", "a\nb\033 'c'\\");
  EXPECT_EQ(Run({"get", "S", "K"}), Prints("a\nb\033 'c'\\\n"));
  EXPECT_EQ(registry.TakeCalls(), (Calls{"Read"}));
  EXPECT_EQ(Run({"get", "-0", "s", "k"}), Prints(std::string("a\nb\033 'c'\\\0", 10)));
  EXPECT_EQ(Run({"get", "--json", "s", "k"}), Prints("\"a\\nb\\u001b 'c'\\\\\"\n"));
}

TEST_F(KeyVerbs, GetDistinguishesAMissingKeyFromAnEmptyValue) {
  back_end->Write("s", "empty", "");
  EXPECT_EQ(Run({"get", "s", "empty"}), Prints("\n"));
  EXPECT_EQ(registry.TakeCalls(), (Calls{"Read", "KeyExists"}));
  EXPECT_EQ(Run({"get", "s", "empty", "--default", "d"}), Prints("\n"));
  EXPECT_EQ(Run({"get", "s", "k"}), Fails(1, "no key 'k' in section 's'"));
  EXPECT_EQ(Run({"get", "t", "k"}), Fails(1, "no key 'k' in section 't'"));
  EXPECT_EQ(Run({"get", "s", "k", "--default", "d"}), Prints("d\n"));
  EXPECT_EQ(Run({"get", "s", "k", "--default", "", "--json"}), Prints("\"\"\n"));
}

TEST_F(KeyVerbs, SetWritesTheValueUnchanged) {
  EXPECT_EQ(Run({"set", "S", "K", "a\nb"}), Prints(""));
  EXPECT_EQ(registry.TakeCalls(), (Calls{"Write"}));
  EXPECT_EQ(back_end->Read("s", "k"), "a\nb");
  EXPECT_EQ(Run({"set", "--", "s", "k=1", "-"}, "input"), Prints(""));
  EXPECT_EQ(back_end->Read("s", "k=1"), "-");
  EXPECT_EQ(Run({"set", "s", "k", "-"}, "line\n\n"), Prints(""));
  EXPECT_EQ(back_end->Read("s", "k"), "line\n\n");
}

TEST_F(KeyVerbs, FlushAndSetWithFlushWriteTheFile) {
  EXPECT_EQ(Run({"set", "s", "k", "v"}), Prints(""));
  EXPECT_EQ(back_end.store->Text(), "");
  EXPECT_EQ(Run({"flush"}), Prints(""));
  EXPECT_EQ(back_end.store->Text(), "[s]\nk=v\n");
  EXPECT_EQ(Run({"set", "--flush", "s", "k", "w"}), Prints(""));
  EXPECT_EQ(back_end.store->Text(), "[s]\nk=w\n");
}

TEST_F(KeyVerbs, SetMakesOneCallForSeveralPairsAndWritesTheFile) {
  back_end->Write("s", "old", "1");
  EXPECT_EQ(Run({"set", "S", "B", "-", "a", "", "-c", "-5", "--force", "--"}, "\"\\\xc3\xb6\n"), Prints(""));
  EXPECT_EQ(registry.TakeCalls(), (Calls{"WriteJson"}));
  EXPECT_EQ(back_end.store->Text(), "[s]\n--force=--\n-c=-5\na\nb=\"\\\xc3\xb6%0a\nold=1\n");
}

TEST_F(KeyVerbs, SetChangesAllKeysOrNone) {
  EXPECT_EQ(Run({"set", "s", "a", "1", "b", std::string(16383, 'x')}), kFull);
  EXPECT_EQ(Run({"set", "s", "a", "1", "b", "\xff"}),
            Fails(2, "D-Bus cannot carry the value of key 'b' in section 's': it is not UTF-8"));
  EXPECT_EQ(Run({"set", "s", "a", "1", "\xff", "2"}), Fails(3, "invalid name $'\\xff': only ASCII is allowed"));
  EXPECT_FALSE(back_end->SectionExists("s"));
  back_end->Write("s", "k", "v");
  EXPECT_EQ(Run({"set", "s", "k", std::string(16383, 'x')}), kFull);
  EXPECT_EQ(back_end->Read("s", "k"), "v");
}

TEST_F(KeyVerbs, SetRefusesWhatARestartLosesUnlessForced) {
  const std::string bracket = "lost at a restart: key '[k' in section 's' (begins with \"[\")\n";
  const std::string empty = "lost at a restart: key '' in section 's' (without name and value)\n";
  const std::pair<Words, std::string> rows[] = {
      {{"set", "s", "[k", "v"}, bracket}, {{"set", "s", "[k", "v", "a", "b"}, bracket}, {{"set", "s", "", ""}, empty}};
  for (auto [words, loss] : rows) {
    SCOPED_TRACE(loss);
    EXPECT_EQ(Run(words), Fails(3, loss + "Nothing changed. Use --force to accept the loss."));
    EXPECT_FALSE(back_end->KeyExists("s", words[2]));
    words.insert(words.begin() + 1, "--force");
    EXPECT_EQ(Run(words), Outcome(0, "", "ledgerctl: warning: " + loss));
    EXPECT_TRUE(back_end->KeyExists("s", words[3]));
    words.insert(words.begin(), "-q");
    EXPECT_EQ(Run(words), Prints(""));
    back_end->DeleteAll();
  }
}

TEST_F(KeyVerbs, SetRefusesANulByteEvenIfForced) {
  const std::string value("a\0b", 3);
  for (const Words& words : {Words{"set", "--force", "s", "k", "-"}, {"set", "--force", "s", "k", "-", "l", "v"}}) {
    EXPECT_EQ(Run(words, value),
              Fails(3, "D-Bus cannot carry the value of key 'k' in section 's': it holds a NUL byte"));
  }
  EXPECT_EQ(registry.TakeCalls(), Calls());
}

// The daemon would keep an empty section of it.
TEST_F(KeyVerbs, RefuseABadNameBeforeTheyCall) {
  for (const std::string line :
       {"get s $", "get $ k", "set s $ v", "set $ k v", "set $ k v l w", "exists $", "exists s $", "unset s $",
        "unset -r $", "list $", "show $", "edit $", "watch $", "watch s $"}) {
    SCOPED_TRACE(line);
    const Words words = Split(std::regex_replace(line, std::regex("[$]"), "gr\xc3\xb6n"));
    EXPECT_EQ(Run(words), Fails(3, "invalid name 'gr\xc3\xb6n': only ASCII is allowed"));
  }
  EXPECT_EQ(registry.TakeCalls(), Calls());
}

TEST_F(KeyVerbs, ExistsAnswersByItsStatus) {
  back_end->Write("s", "k", "");
  EXPECT_EQ(Run({"exists", "S"}), Prints(""));
  EXPECT_EQ(Run({"exists", "S", "K"}), Prints(""));
  EXPECT_EQ(Run({"exists", "t"}), Outcome(1, "", ""));
  EXPECT_EQ(Run({"exists", "s", "l"}), Outcome(1, "", ""));
  EXPECT_EQ(Run({"exists", "--json", "s"}), Prints("true\n"));
  EXPECT_EQ(Run({"exists", "--json", "t"}), Outcome(1, "false\n", ""));
}

TEST_F(KeyVerbs, UnsetAndClearDeleteWhatIsConfirmed) {
  back_end->WriteJson(R"({"s":{"k":"1","l":"2"},"t":{"k":"3"}})");
  EXPECT_EQ(Run({"unset", "S", "K"}), Prints(""));
  EXPECT_EQ(Run({"unset", "s", "k"}), Fails(1, "no key 'k' in section 's'"));
  EXPECT_EQ(Run({"unset", "-r", "T"}), Prints(""));
  EXPECT_EQ(Run({"unset", "-r", "t"}), Fails(1, "no section 't'"));
  EXPECT_EQ(std::get<0>(Run({"unset", "s"})), 2);
  EXPECT_EQ(std::get<0>(Run({"clear"})), 2);
  EXPECT_EQ(back_end.FlushedText(), "[s]\nl=2\n");
  EXPECT_EQ(Run({"clear", "--yes"}), Prints(""));
  EXPECT_EQ(back_end.FlushedText(), "");
}

}  // namespace
}  // namespace test_client
