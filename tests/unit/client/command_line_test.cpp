#include "client/command_line.h"

#include <gtest/gtest.h>

#include <sstream>

#include "client/failure.h"
#include "client/help.h"
#include "client/verb_table.h"

namespace ledgerctl {
namespace {

using Words = std::vector<std::string>;

std::string UsageError(const Words& words) {
  try {
    ParseCommandLine(words);
  } catch (const Failure& e) {
    EXPECT_EQ(e.Status(), ExitStatus::Usage);
    return e.what();
  }
  return "accepted";
}

TEST(CommandLine, TakesOptionsBeforeAndAfterTheVerb) {
  for (const Words& words : {Words{"-q", "--json", "--timeout", "2.5", "get", "s", "k"},
                             Words{"get", "-q", "s", "--json", "k", "--timeout", "2.5"},
                             Words{"--timeout=2.5", "get", "s", "k", "--quiet", "--json"}}) {
    const CommandLine command = ParseCommandLine(words);
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

// All of these are legal names and values.
TEST(CommandLine, ReadsNamesAndValuesUnchanged) {
  for (const char* text : {"get", "help", "",   "a=b", "a.b/c",  "[a,b]",   "{}", "%%", "a b",  "\"q\"", "'q'",
                           "-",   "-5",   "--", "-h",  "--json", "--flush", "@x", "#",  "a\nb", "true"}) {
    SCOPED_TRACE(text);
    const CommandLine literal = ParseCommandLine({"set", "--", text, text, text});
    EXPECT_EQ(literal.section, text);
    EXPECT_EQ(literal.pairs, (RegistrySection{{text, text}}));
    EXPECT_TRUE(literal.after_dashes);
    EXPECT_EQ(ParseCommandLine({"get", "--", text, text}).key, text);
  }
}

TEST(CommandLine, ReadsAllWordsAfterTheSectionOfSetLiterally) {
  for (const char* text : {"-0.5", "-5", "-q5", "-q", "-h", "--help", "-hello", "--json", "--", "-", "--flush", "",
                           "\xff", "a=b", "{}", "[a,b]"}) {
    SCOPED_TRACE(text);
    const CommandLine command = ParseCommandLine({"set", "--flush", "s", "k", text});
    EXPECT_STREQ(command.verb->name, "set");
    EXPECT_TRUE(command.flush);
    EXPECT_FALSE(command.quiet);
    EXPECT_FALSE(command.json);
    EXPECT_FALSE(command.after_dashes);
    EXPECT_EQ(command.pairs, (RegistrySection{{"k", text}}));
  }
  EXPECT_EQ(ParseCommandLine({"set", "s", "-h", "1", "--", "2", "B", "-q"}).pairs,
            (RegistrySection{{"-h", "1"}, {"--", "2"}, {"b", "-q"}}));
}

TEST(CommandLine, TellsAnEmptyArgumentFromNone) {
  EXPECT_EQ(ParseCommandLine({"list"}).section, std::nullopt);
  EXPECT_EQ(ParseCommandLine({"list", ""}).section, "");
  EXPECT_EQ(ParseCommandLine({"get", "s", "k"}).default_value, std::nullopt);
  EXPECT_EQ(ParseCommandLine({"get", "s", "k", "--default", ""}).default_value, "");
  EXPECT_EQ(ParseCommandLine({"get", "s", "k", "--default="}).default_value, "");
  EXPECT_EQ(ParseCommandLine({"get", "--default=", "s", "k"}).key, "k");
  EXPECT_EQ(ParseCommandLine({"get", "s", "k", "--default", "-x"}).default_value, "-x");
  EXPECT_EQ(ParseCommandLine({"get", "s", "k", "--default", "--"}).default_value, "--");
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
  EXPECT_TRUE(ParseCommandLine({"set", "--flush", "s", "k", "v"}).flush);
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

TEST(CommandLine, ShowsTheHelpOfTheVerbThatIsAskedFor) {
  for (const Words& words : {Words{"help", "get"}, Words{"get", "--help"}, Words{"get", "s", "-h"}}) {
    EXPECT_STREQ(ParseCommandLine(words).verb->name, "help");
    EXPECT_EQ(ParseCommandLine(words).topic, "get");
  }
  EXPECT_EQ(ParseCommandLine({"set", "-h"}).topic, "set");
  for (const Words& words : {Words{"help"}, Words{"--help"}, Words{"-h"}}) {
    EXPECT_STREQ(ParseCommandLine(words).verb->name, "help");
    EXPECT_EQ(ParseCommandLine(words).topic, std::nullopt);
  }
}

TEST(CommandLine, SaysWhatIsWrong) {
  struct Row {
    Words words;
    const char* text;
  };
  const Row rows[] = {
      {{}, "a verb is missing\nTry \"ledgerctl help\"."},
      {{"frob"}, "unknown verb frob\nTry \"ledgerctl help\"."},
      {{"a\nb"}, "unknown verb $'a\\nb'\nTry \"ledgerctl help\"."},
      {{""}, "unknown verb ''\nTry \"ledgerctl help\"."},
      {{"-x", "get"}, "unknown option -x\nTry \"ledgerctl help\"."},
      {{"help", "frob"}, "unknown verb frob\nTry \"ledgerctl help\"."},
      {{"get"}, "get: SECTION is required\nTry \"ledgerctl help get\"."},
      {{"get", "s"}, "get: KEY is required\nTry \"ledgerctl help get\"."},
      {{"set", "s"}, "set: KEY is required\nTry \"ledgerctl help set\"."},
      {{"set", "s", "k"}, "set: KEY k needs a VALUE\nTry \"ledgerctl help set\"."},
      {{"diff"}, "diff: FILE is required\nTry \"ledgerctl help diff\"."},
      {{"get", "s", "k", "x"}, "get: unexpected argument x\nTry \"ledgerctl help get\"."},
      {{"set", "s", "k", "v", "--flush"},
       "set: KEY --flush needs a VALUE\nWrite options before SECTION.\nTry \"ledgerctl help set\"."},
      {{"set", "s", "a", "1", "A", "2"}, "set: KEY A is given twice\nTry \"ledgerctl help set\"."},
      {{"set", "s", "a", "-", "b", "-"}, "set: only one VALUE can be \"-\"\nTry \"ledgerctl help set\"."},
      {{"set", "a b", "k=1"},
       "set: KEY 'k=1' has \"=\" in it\nwrite: ledgerctl set 'a b' k 1\nTry \"ledgerctl help set\"."},
      {{"set", "s", "a", "1", "k==", "2"},
       "set: KEY 'k==' has \"=\" in it\nwrite: ledgerctl set s k '='\nTry \"ledgerctl help set\"."},
      {{"set", "-s", "k", "v"},
       "set: unknown option -s\nWrite \"--\" before names and values that begin with \"-\".\n"
       "Try \"ledgerctl help set\"."},
      {{"get", "s", "k", "--default"}, "get: --default needs a value\nTry \"ledgerctl help get\"."},
      {{"unset", "s"}, "unset: this deletes the whole section 's'; confirm it with -r\nTry \"ledgerctl help unset\"."},
      {{"unset", "-r", "s", "k"}, "unset: -r deletes a whole section, without KEY\nTry \"ledgerctl help unset\"."},
      {{"clear"}, "clear: this deletes the whole registry; confirm it with --yes\nTry \"ledgerctl help clear\"."},
      {{"load", "--replace", "--missing-only"},
       "load: --replace and --missing-only exclude each other\nTry \"ledgerctl help load\"."},
      {{"-0", "--json", "list"}, "list: -0 and --json exclude each other\nTry \"ledgerctl help list\"."},
      {{"list", "--json", "-0"}, "list: -0 and --json exclude each other\nTry \"ledgerctl help list\"."},
      {{"watch", "-i", "x"},
       "watch: -i: x is not a number of seconds from 0.001 to 21600\nTry \"ledgerctl help watch\"."},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(UsageError(row.words), row.text);
  }
}

// The library would read most of them as something else.
TEST(CommandLine, RefusesWordsThatOnlyResembleAnOption) {
  for (const char* word : {"-k", "-hello", "-help", "-qh", "-q5", "-5", "-0.5", "--jso", "--json=true",
                           "--json=", "--no-such", "---", "--=x", "-=", "-\xff"}) {
    SCOPED_TRACE(word);
    const std::string reason = UsageError({"exists", "s", word});
    EXPECT_EQ(reason.find("exists: unknown option "), 0u) << reason;
    EXPECT_NE(reason.find("\nWrite \"--\" before names and values that begin with \"-\".\n"), std::string::npos)
        << reason;
    EXPECT_EQ(UsageError({word, "list"}).find("unknown option "), 0u);
  }
}

TEST(CommandLine, TakesFormsOfOutputWithTheirVerbsOnly) {
  struct Row {
    Words words;
    bool nul;
    bool json;
  };
  const Row rows[] = {
      {{"get", "s", "k"}, true, true},
      {{"set", "s", "k", "v"}, false, false},
      {{"exists", "s"}, false, true},
      {{"list"}, true, true},
      {{"show"}, false, true},
      {{"unset", "s", "k"}, false, false},
      {{"clear", "--yes"}, false, false},
      {{"flush"}, false, false},
      {{"dump"}, false, false},
      {{"load"}, false, false},
      {{"edit"}, false, false},
      {{"diff", "f"}, false, false},
      {{"watch"}, false, true},
      {{"usage"}, false, true},
      {{"help"}, false, false},
  };
  for (Row row : rows) {
    const std::string verb = row.words.front();
    const std::string hint = " only\nTry \"ledgerctl help " + verb + "\".";
    row.words.insert(row.words.begin() + 1, "-0");
    EXPECT_EQ(UsageError(row.words), row.nul ? "accepted" : verb + ": -0 goes with get and list" + hint);
    row.words[1] = "--json";
    EXPECT_EQ(UsageError(row.words),
              row.json ? "accepted" : verb + ": --json goes with get, exists, list, show, usage and watch" + hint);
  }
}

TEST(CommandLine, ReadsNumbersWithinTheirRangeOnly) {
  for (const char* time : {"0", "-1", "1s", "nan", "inf", "1e999", "0x10", "0.0009", "21600.001"}) {
    EXPECT_EQ(UsageError({"list", "--timeout", time}), std::string("list: --timeout: ") + time +
                                                           " is not a number of seconds from 0.001 to 21600\n"
                                                           "Try \"ledgerctl help list\".");
  }
  for (const char* text : {"", " 1", "1 "}) {
    EXPECT_NE(UsageError({"list", "--timeout", text}), "accepted");
  }
  for (const char* percent : {"-1", "100.1", "x", "80%", "nan", "1e-999"}) {
    EXPECT_EQ(UsageError({"usage", "--fail-above", percent}), std::string("usage: --fail-above: ") + percent +
                                                                  " is not a percentage from 0 to 100\n"
                                                                  "Try \"ledgerctl help usage\".");
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

TEST(Help, AlignsTheSummaries) {
  const std::string all = HelpText();
  for (const VerbEntry& entry : kVerbs) {
    const std::string verb = entry.name;
    const std::string text = HelpText(verb);
    const std::size_t begin = text.find("\n\n") + 2;
    const std::string summary = text.substr(begin, text.find("\n\n", begin) - begin);
    const std::size_t place = all.find(" " + summary + "\n");
    ASSERT_NE(place, std::string::npos) << verb;
    EXPECT_EQ(place - all.rfind('\n', place), 38u) << verb;
  }
}

TEST(Help, NamesEveryVerbAndEveryOption) {
  const std::string all = HelpText();
  for (const VerbEntry& entry : kVerbs) {
    const std::string verb = entry.name;
    SCOPED_TRACE(verb);
    EXPECT_NE(all.find("\n  " + verb), std::string::npos);
    EXPECT_EQ(HelpText(verb).find("ledgerctl " + verb), 0u);
    for (const std::string& option : OptionsOf(entry)) {
      EXPECT_NE(HelpText(verb).find(option), std::string::npos) << option;
      EXPECT_NE(all.find(option), std::string::npos) << option;
    }
  }
}

}  // namespace
}  // namespace ledgerctl
