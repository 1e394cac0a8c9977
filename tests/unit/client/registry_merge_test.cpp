#include "client/registry_merge.h"

#include <gtest/gtest.h>

#include <random>

#include "client/failure.h"
#include "registry/registry.h"
#include "tests/unit/registry/back_end_fixture.h"

namespace ledgerctl {
namespace {

Failure RefusalOf(const std::string& json) {
  try {
    ParseMerge(json, "x.json");
  } catch (const Failure& e) {
    return e;
  }
  return Failure(ExitStatus::Success, "accepted");
}

TEST(ParseMerge, SaysWhatIsWrong) {
  struct Row {
    const char* name;
    const char* json;
    const char* reason;
  };
  const Row rows[] = {
      {"array", "[]", "no JSON object of objects"},
      {"string", "\"a\"", "no JSON object of objects"},
      {"section of another type", R"({"a":{},"b":5})", "section 'b' is neither an object nor null"},
      {"value of another type", R"({"a":{"k":true}})",
       "the value of key 'k' in section 'a' is neither a string nor null"},
      {"value that is an object", R"({"a":{"k":{"l":"m"}}})",
       "the value of key 'k' in section 'a' is neither a string nor null"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Failure refusal = RefusalOf(row.json);
    EXPECT_EQ(refusal.Status(), ExitStatus::NotADocument);
    EXPECT_EQ(refusal.what(), std::string("x.json: not a registry document: ") + row.reason);
  }
  EXPECT_THROW(ParseMerge("{\"gr\xc3\xb6n\":null}", "x"), Registry::InvalidName);
  EXPECT_THROW(ParseMerge("{\"a\":{\"gr\xc3\xb6n\":null}}", "x"), Registry::InvalidName);
}

TEST(ParseMerge, SaysWhereTheTextIsNotJson) {
  struct Row {
    const char* name;
    std::string json;
    const char* where;
  };
  const Row rows[] = {
      {"no text", "", "line 1, column 1: "},
      {"end", "{", "line 1, column 2: "},
      {"end after a number", R"({"a":1)", "line 1, column 7: "},
      {"end on a line of its own", "{\n", "line 2, column 1: "},
      {"token", "{\n  \"a\": {\"k\": \"v\"},\n  }\n", "line 3, column 3: "},
      {"after a number", R"({"a":1 2})", "line 1, column 8: "},
      {"word that is none", "{\"a\":\r\n\tnul}", "line 2, column 2: "},
      {"open quote", "{\"a\":\n  {\"k\":\"v\n", "line 2, column 8: "},
      {"after characters of several bytes", "{\"\xc3\xb6\xe2\x82\xac\" 1", "line 1, column 7: "},
      {"after the value", "{}\n{}", "line 2, column 1: "},
      {"NUL after the value", std::string("{} \0 ", 5), "line 1, column 4: "},
      {"NUL within", std::string("{\"a\":\0}", 7), "line 1, column 6: "},
      {"word after a byte order mark", "\xef\xbb\xbf{x", "line 1, column 3: "},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Failure refusal = RefusalOf(row.json);
    EXPECT_EQ(refusal.Status(), ExitStatus::NotADocument);
    const std::string begin = std::string("x.json: ") + row.where + "parse error - unexpected ";
    EXPECT_EQ(std::string(refusal.what()).substr(0, begin.size()), begin);
  }
}

// What the client predicts is what the daemon does.
TEST(ApplyMerge, DoesWhatTheDaemonDoes) {
  struct Row {
    const char* name;
    const char* json;
  };
  const Row rows[] = {
      {"nothing", "{}"},
      {"sets, changes, deletes", R"({"a":{"k":"2","new":"3","l":null},"b":null,"c":{"x":""}})"},
      {"null in a section that is missing", R"({"nope":{"x":null}})"},
      {"missing section", R"({"nope":null})"},
      {"names of mixed case", R"({"A":{"K":"upper","k":"lower"}})"},
      {"deleted, then made again", R"({"A":null,"a":{"z":"1"}})"},
      {"made, then deleted", R"({"A":{"z":"1"},"a":null})"},
      {"key set, then deleted", R"({"new":{"Z":"1","z":null}})"},
      {"key deleted, then set", R"({"a":{"K":null,"k":"1"}})"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string text = "[a]\nk=1\nl=x\n[b]\nk=1\n";
    BackEnd daemon(text);
    daemon->WriteJson(row.json);
    RegistrySections sections = ParseRegistry(text);
    ApplyMerge(ParseMerge(row.json, "x"), sections);
    EXPECT_EQ(SerialiseRegistry(sections), daemon.FlushedText());
  }
}

TEST(PrintMerge, MakesEmptySectionsInOneCall) {
  BackEnd daemon("[full]\nk=v\n");
  daemon->WriteJson(PrintMerge({{"empty", KeyMerge()}, {"1", KeyMerge()}, {"full", KeyMerge()}}));
  EXPECT_EQ(daemon.FlushedText(), "[1]\n[empty]\n[full]\nk=v\n");
}

TEST(MergeBetween, NamesWhatChangedAndNothingElse) {
  const RegistrySections before = {{"a", {{"k", "1"}, {"l", "2"}, {"m", "3"}}}, {"b", {{"k", ""}}}, {"c", {}}};
  const RegistrySections after = {{"a", {{"k", "1"}, {"l", "other"}, {"n", ""}}}, {"c", {}}, {"d", {}}};
  const Merge expected = {
      {"a", KeyMerge{{"l", "other"}, {"m", std::nullopt}, {"n", ""}}}, {"b", std::nullopt}, {"d", KeyMerge()}};
  EXPECT_EQ(MergeBetween(before, after), expected);
  EXPECT_TRUE(MergeBetween(before, before).empty());
}

TEST(MergeOfMissing, LeavesAloneWhatIsThere) {
  const RegistrySections existing = {{"a", {{"k", "1"}}}, {"c", {{"x", "y"}}}};
  const Merge expected = {{"a", KeyMerge{{"l", "2"}}}, {"b", KeyMerge()}};
  EXPECT_EQ(MergeOfMissing(existing, {{"a", {{"k", "other"}, {"l", "2"}}}, {"b", {}}, {"c", {}}}), expected);
}

RegistrySections RandomSections(std::mt19937& random) {
  RegistrySections sections;
  for (std::size_t s = random() % 4; s > 0; --s) {
    RegistrySection& keys = sections[std::string(1, "abc1"[random() % 4])];
    for (std::size_t k = random() % 4; k > 0; --k) {
      keys[std::string(1, "klm2"[random() % 4])] = std::string(random() % 3, 'v');
    }
  }
  return sections;
}

TEST(MergeThatReplaces, LeavesNothingElseBehind) {
  std::mt19937 random(7);
  for (int round = 0; round < 1000; ++round) {
    const RegistrySections before = RandomSections(random);
    const RegistrySections after = RandomSections(random);
    BackEnd daemon(SerialiseRegistry(before));
    // Somebody has changed what is to be replaced.
    if (!before.empty() && round % 3 != 0) {
      const auto& [section, keys] = *before.begin();
      round % 3 == 1 || keys.empty() ? daemon->DeleteSection(section)
                                     : daemon->Write(section, keys.begin()->first, "changed");
    }
    daemon->WriteJson(PrintMerge(MergeThatReplaces(before, after)));
    ASSERT_EQ(daemon.FlushedText(), SerialiseRegistry(after)) << "round " << round << " of seed 7";
  }
}

}  // namespace
}  // namespace ledgerctl
