#include "client/command_line.h"

#include <set>

#include "client/help.h"
#include "client/quote_word.h"
#include "client/verb_table.h"
#include "tests/unit/client/client_fixture.h"

namespace ledgerctl {
namespace {

using test_client::Outcome;
using test_client::Split;
using test_client::Words;

Outcome RefusalOf(const Words& words) {
  return test_client::FailureOf([&] { ParseCommandLine(words); });
}

/// What RefusalOf returns for a mistake in the words of a verb, or before them if `verb` is empty.
Outcome Refusal(const std::string& verb, const std::string& text) {
  return test_client::Fails(2, (verb.empty() ? text : verb + ": " + text) + "\nTry \"ledgerctl help" +
                                   (verb.empty() ? "" : " " + verb) + "\".");
}

const Outcome kAccepted = test_client::Prints("");

TEST(CommandLine, HasOptionsBeforeAndAfterTheVerb) {
  for (const char* line :
       {"-q --json --timeout 2.5 get s k", "get -q s --json k --timeout 2.5", "--timeout=2.5 get s k --quiet --json"}) {
    const CommandLine command = ParseCommandLine(Split(line));
    EXPECT_STREQ(command.verb->name, "get");
    EXPECT_TRUE(command.quiet);
    EXPECT_TRUE(command.json);
    EXPECT_FALSE(command.nul);
    EXPECT_EQ(command.timeout.count(), 2500);
    EXPECT_EQ(command.shown_timeout, "2.5");
    EXPECT_EQ(command.section, "s");
    EXPECT_EQ(command.key, "k");
  }
}

// All of these are legal names or values.
TEST(CommandLine, ReadsWordsAfterDashesAndAfterTheSectionOfSetLiterally) {
  for (const char* text : {"get",   "help", "",     "a=b",  "a.b/c", "[a,b]", "{}",     "%%",      "a b",
                           "\"q\"", "'q'",  "-",    "-5",   "--",    "-h",    "--json", "--flush", "@x",
                           "#",     "a\nb", "true", "-0.5", "-q5",   "-q",    "--help", "-hello"}) {
    SCOPED_TRACE(text);
    const CommandLine command = ParseCommandLine({"set", "--flush", "s", "k", text});
    EXPECT_STREQ(command.verb->name, "set");
    EXPECT_TRUE(command.flush);
    EXPECT_FALSE(command.quiet);
    EXPECT_FALSE(command.json);
    EXPECT_FALSE(command.after_dashes);
    EXPECT_EQ(command.pairs, (RegistrySection{{"k", text}}));
    const CommandLine literal = ParseCommandLine({"set", "--", text, text, text});
    EXPECT_EQ(literal.section, text);
    EXPECT_EQ(literal.pairs, (RegistrySection{{text, text}}));
    EXPECT_TRUE(literal.after_dashes);
    EXPECT_EQ(ParseCommandLine({"get", "--", text, text}).key, text);
  }
  EXPECT_EQ(ParseCommandLine({"set", "s", "-h", "1", "--", "2", "B", "\xff"}).pairs,
            (RegistrySection{{"-h", "1"}, {"--", "2"}, {"b", "\xff"}}));
}

TEST(CommandLine, DistinguishesAnEmptyArgumentFromNone) {
  EXPECT_EQ(ParseCommandLine({"list"}).section, std::nullopt);
  EXPECT_EQ(ParseCommandLine({"list", ""}).section, "");
  EXPECT_EQ(ParseCommandLine({"get", "--default=", "s", "k"}).key, "k");
  EXPECT_EQ(ParseCommandLine({"get", "s", "k"}).default_value, std::nullopt);
  EXPECT_EQ(ParseCommandLine({"get", "s", "k", "--default="}).default_value, "");
  for (const char* value : {"", "-x", "--"}) {
    EXPECT_EQ(ParseCommandLine({"get", "s", "k", "--default", value}).default_value, value);
  }
  EXPECT_EQ(ParseCommandLine({"get", "s", "k", "--default=--json"}).default_value, "--json");
}

TEST(CommandLine, ReadsTheLastOfARepeatedOption) {
  EXPECT_EQ(ParseCommandLine({"get", "s", "k", "--default", "1", "--default=2"}).default_value, "2");
  EXPECT_EQ(ParseCommandLine({"--timeout", "1", "--timeout", "2", "list"}).timeout.count(), 2000);
  EXPECT_EQ(ParseCommandLine({"--timeout", "1", "list", "--timeout", "2"}).timeout.count(), 2000);
  EXPECT_EQ(ParseCommandLine({"watch", "-i2", "-i", "3"}).interval.count(), 3000);
  EXPECT_TRUE(ParseCommandLine({"-q", "-q", "list", "-q", "--quiet"}).quiet);
}

TEST(CommandLine, KnowsTheOptionsOfEachVerb) {
  EXPECT_TRUE(ParseCommandLine({"set", "--force", "s", "k", "v"}).force);
  EXPECT_EQ(ParseCommandLine({"usage", "--fail-above", "99.5"}).fail_above, 99.5);
  EXPECT_TRUE(ParseCommandLine({"unset", "-r", "s"}).whole_section);
  EXPECT_TRUE(ParseCommandLine({"clear", "--yes"}).confirmed);
  EXPECT_TRUE(ParseCommandLine({"flush", "--sync"}).sync);
  EXPECT_TRUE(ParseCommandLine({"load", "--replace"}).replace);
  EXPECT_TRUE(ParseCommandLine({"load", "--missing-only", "f"}).missing_only);
  EXPECT_TRUE(ParseCommandLine({"load", "-", "--dry-run"}).dry_run);
  EXPECT_EQ(ParseCommandLine({"load", "-"}).file, "-");
  EXPECT_EQ(ParseCommandLine({"watch", "-i", "0.25"}).interval.count(), 250);
  EXPECT_TRUE(ParseCommandLine({"-0", "list"}).nul);
  EXPECT_TRUE(ParseCommandLine({"--version"}).version);
}

TEST(CommandLine, ShowsTheHelpThatIsAskedFor) {
  for (const auto& [line, topic] : {std::pair("help get", "get"),
                                    {"get --help", "get"},
                                    {"get s -h", "get"},
                                    {"set -h", "set"},
                                    {"help", ""},
                                    {"--help", ""},
                                    {"-h", ""}}) {
    const CommandLine command = ParseCommandLine(Split(line));
    EXPECT_STREQ(command.verb->name, "help");
    EXPECT_EQ(command.topic, *topic == '\0' ? std::nullopt : std::optional<std::string>(topic));
  }
}

TEST(CommandLine, ReportsEachMistake) {
  struct Row {
    Words words;
    Outcome refusal;
  };
  const Row rows[] = {
      {{}, Refusal("", "a verb is missing")},
      {{"frob"}, Refusal("", "unknown verb frob")},
      {{"a\nb"}, Refusal("", "unknown verb $'a\\nb'")},
      {{""}, Refusal("", "unknown verb ''")},
      {{"-x", "get"}, Refusal("", "unknown option -x")},
      {{"help", "frob"}, Refusal("", "unknown verb frob")},
      {{"get"}, Refusal("get", "SECTION is required")},
      {{"get", "s"}, Refusal("get", "KEY is required")},
      {{"set", "s"}, Refusal("set", "KEY is required")},
      {{"set", "s", "k"}, Refusal("set", "KEY k needs a VALUE")},
      {{"diff"}, Refusal("diff", "FILE is required")},
      {{"get", "s", "k", "x"}, Refusal("get", "unexpected argument x")},
      {{"set", "s", "k", "v", "--flush"}, Refusal("set", "KEY --flush needs a VALUE\nWrite options before SECTION.")},
      {{"set", "s", "a", "1", "A", "2"}, Refusal("set", "KEY A is given twice")},
      {{"set", "s", "a", "-", "b", "-"}, Refusal("set", "only one VALUE can be \"-\"")},
      {{"set", "a b", "k=1"}, Refusal("set", "KEY 'k=1' has \"=\" in it\nwrite: ledgerctl set 'a b' k 1")},
      {{"set", "s", "a", "1", "k==", "2"}, Refusal("set", "KEY 'k==' has \"=\" in it\nwrite: ledgerctl set s k '='")},
      {{"set", "-s", "k", "v"},
       Refusal("set", "unknown option -s\nWrite \"--\" before names and values that begin with \"-\".")},
      {{"get", "s", "k", "--default"}, Refusal("get", "--default needs a value")},
      {{"watch", "--exec"}, Refusal("watch", "--exec needs a value")},
      {{"unset", "s"}, Refusal("unset", "this deletes the whole section 's'; confirm it with -r")},
      {{"unset", "-r", "s", "k"}, Refusal("unset", "-r deletes a whole section and takes no KEY")},
      {{"clear"}, Refusal("clear", "this deletes the whole registry; confirm it with --yes")},
      {{"load", "--replace", "--missing-only"}, Refusal("load", "--replace and --missing-only exclude each other")},
      {{"-0", "--json", "list"}, Refusal("list", "-0 and --json exclude each other")},
      {{"list", "--json", "-0"}, Refusal("list", "-0 and --json exclude each other")},
      {{"watch", "-i", "x"}, Refusal("watch", "-i: x is not a number of seconds from 0.001 to 21600")},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(RefusalOf(row.words), row.refusal);
  }
}

// The library would read most of them as something else.
TEST(CommandLine, RefusesWordsThatOnlyResembleAnOption) {
  for (const std::string word : {"-k", "-hello", "-help", "-qh", "-q5", "-5", "-0.5", "--jso", "--json=true",
                                 "--json=", "--no-such", "---", "--=x", "-=", "-\xff"}) {
    SCOPED_TRACE(word);
    const std::string text = "unknown option " + QuoteWord(word);
    EXPECT_EQ(RefusalOf({"exists", "s", word}),
              Refusal("exists", text + "\nWrite \"--\" before names and values that begin with \"-\"."));
    EXPECT_EQ(RefusalOf({word, "list"}), Refusal("", text));
  }
}

TEST(CommandLine, AcceptsFormsOfOutputOnlyForTheirVerbs) {
  const std::set<std::string> with_nul = {"get", "list"};
  const std::set<std::string> with_json = {"get", "exists", "list", "show", "watch", "usage"};
  for (const char* line : {"get s k", "set s k v", "exists s", "list", "show", "unset s k", "clear --yes", "flush",
                           "dump", "load", "edit", "diff f", "watch", "usage", "help"}) {
    Words words = Split(line);
    const std::string verb = words.front();
    words.insert(words.begin() + 1, "-0");
    EXPECT_EQ(RefusalOf(words), with_nul.count(verb) != 0 ? kAccepted : Refusal(verb, "only get and list have -0"));
    words[1] = "--json";
    EXPECT_EQ(RefusalOf(words), with_json.count(verb) != 0
                                    ? kAccepted
                                    : Refusal(verb, "only get, exists, list, show, usage and watch have --json"));
  }
}

TEST(CommandLine, ReadsNumbersWithinTheirRangeOnly) {
  for (const std::string time :
       {"0", "-1", "1s", "nan", "inf", "1e999", "0x10", "0.0009", "21600.001", "", " 1", "1 "}) {
    EXPECT_EQ(RefusalOf({"list", "--timeout", time}),
              Refusal("list", "--timeout: " + QuoteWord(time) + " is not a number of seconds from 0.001 to 21600"));
  }
  for (const std::string percent : {"-1", "100.1", "101", "x", "80%", "nan", "1e-999"}) {
    EXPECT_EQ(RefusalOf({"usage", "--fail-above", percent}),
              Refusal("usage", "--fail-above: " + percent + " is not a percentage from 0 to 100"));
  }
  EXPECT_EQ(ParseCommandLine({"list", "--timeout", "0.001"}).timeout.count(), 1);
  EXPECT_EQ(ParseCommandLine({"list", "--timeout", "0.0016"}).timeout.count(), 2);
  EXPECT_EQ(ParseCommandLine({"list", "--timeout", "21.6e3"}).timeout.count(), 21600000);
  EXPECT_EQ(ParseCommandLine({"list"}).timeout.count(), 25000);
}

TEST(Help, FitsATerminalOf80Columns) {
  std::string all = HelpText();
  for (const VerbEntry& verb : kVerbs) {
    all += HelpText(verb.name);
  }
  std::istringstream lines(all);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_LE(line.size(), 80u) << line;
    EXPECT_TRUE(line.empty() || line.back() != ' ') << line;
  }
}

TEST(Help, HasEveryVerbAndEveryOptionAndAlignsTheSummaries) {
  const std::string all = HelpText();
  for (const VerbEntry& entry : kVerbs) {
    const std::string text = HelpText(entry.name);
    SCOPED_TRACE(entry.name);
    EXPECT_NE(all.find(std::string("\n  ") + entry.name), std::string::npos);
    EXPECT_EQ(text.find(std::string("ledgerctl ") + entry.name), 0u);
    EXPECT_NE(text.find(std::string("\n\n") + entry.summary + "\n\n"), std::string::npos);
    const std::size_t place = all.find(std::string(" ") + entry.summary + "\n");
    ASSERT_NE(place, std::string::npos);
    EXPECT_EQ(place - all.rfind('\n', place), 38u);
    for (const std::string& option : OptionsOf(entry)) {
      EXPECT_NE(text.find(option), std::string::npos) << option;
      EXPECT_NE(all.find(option), std::string::npos) << option;
    }
  }
}

}  // namespace
}  // namespace ledgerctl
