#include "client/registry_merge.h"

#include "tests/unit/client/client_fixture.h"

namespace ledgerctl {
namespace {

using test_client::Fails;
using test_client::Outcome;

Outcome RefusalOf(const std::string& json) {
  return test_client::FailureOf([&] { ParseMerge(json, "x.json"); });
}

TEST(ParseMerge, ReportsWhatIsNoDocument) {
  struct Row {
    const char* json;
    const char* reason;
  };
  const Row rows[] = {
      {"[]", "the top level is not an object"},
      {"\"a\"", "the top level is not an object"},
      {R"({"a":{},"b":5})", "section 'b' is neither an object nor null"},
      {R"({"a":{"k":true}})", "the value of key 'k' in section 'a' is neither a string nor null"},
      {R"({"a":{"k":{"l":"m"}}})", "the value of key 'k' in section 'a' is neither a string nor null"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(RefusalOf(row.json), Fails(4, std::string("x.json: not a registry document: ") + row.reason));
  }
  for (const char* json : {"{\"gr\xc3\xb6n\":null}", "{\"a\":{\"gr\xc3\xb6n\":null}}"}) {
    EXPECT_EQ(RefusalOf(json), Fails(3, "invalid name 'gr\xc3\xb6n': only ASCII is allowed"));
  }
}

TEST(ParseMerge, ReportsTheLineAndTheColumnThatAreNotJson) {
  struct Row {
    const char* name;
    std::string json;
    const char* place;
  };
  const Row rows[] = {
      {"no text", "", "line 1, column 1: "},
      {"end", "{", "line 1, column 2: "},
      {"end after a number", R"({"a":1)", "line 1, column 7: "},
      {"end on a line of its own", "{\n", "line 2, column 1: "},
      {"token", "{\n  \"a\": {\"k\": \"v\"},\n  }\n", "line 3, column 3: "},
      {"after a number", R"({"a":1 2})", "line 1, column 8: "},
      {"unknown word", "{\"a\":\r\n\tnul}", "line 2, column 2: "},
      {"open quote", "{\"a\":\n  {\"k\":\"v\n", "line 2, column 8: "},
      {"after characters of several bytes", "{\"\xc3\xb6\xe2\x82\xac\" 1", "line 1, column 7: "},
      {"after the value", "{}\n{}", "line 2, column 1: "},
      {"NUL after the value", std::string("{} \0 ", 5), "line 1, column 4: "},
      {"NUL within", std::string("{\"a\":\0}", 7), "line 1, column 6: "},
      {"word after a byte order mark", "\xef\xbb\xbf{x", "line 1, column 3: "},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const auto [status, output, error] = RefusalOf(row.json);
    EXPECT_EQ(status, 4);
    EXPECT_EQ(error.find(std::string("ledgerctl: x.json: ") + row.place + "parse error - unexpected "), 0u) << error;
  }
}

TEST(ApplyMerge, PredictsTheDaemonsResult) {
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

TEST(MergeBetween, HasTheChangesOnly) {
  const RegistrySections before = {{"a", {{"k", "1"}, {"l", "2"}, {"m", "3"}}}, {"b", {{"k", ""}}}, {"c", {}}};
  const RegistrySections after = {{"a", {{"k", "1"}, {"l", "other"}, {"n", ""}}}, {"c", {}}, {"d", {}}};
  const Merge expected = {
      {"a", KeyMerge{{"l", "other"}, {"m", std::nullopt}, {"n", ""}}}, {"b", std::nullopt}, {"d", KeyMerge()}};
  EXPECT_EQ(MergeBetween(before, after), expected);
  EXPECT_TRUE(MergeBetween(before, before).empty());
}

TEST(MergeOfMissing, HasNothingThatExists) {
  const RegistrySections existing = {{"a", {{"k", "1"}}}, {"c", {{"x", "y"}}}};
  const Merge expected = {{"a", KeyMerge{{"l", "2"}}}, {"b", KeyMerge()}};
  EXPECT_EQ(MergeOfMissing(existing, {{"a", {{"k", "other"}, {"l", "2"}}}, {"b", {}}, {"c", {}}}), expected);
}

}  // namespace
}  // namespace ledgerctl
