// Texts with any nesting and of many megabytes.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "registry/json_document.h"
#include "tests/unit/registry/back_end_fixture.h"
#include "tests/unit/support/emulation.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/memory_use.h"

namespace {

constexpr std::size_t kMegabyte = 1024 * 1024;

// Repeats the text. Replaces "#" by the number of the repetition.
std::string Repeat(const std::string& text, std::size_t times) {
  const std::size_t hash = text.find('#');
  std::string repeated;
  for (std::size_t i = 0; i < times; ++i) {
    repeated.append(text, 0, hash);
    if (hash != std::string::npos) {
      repeated.append(std::to_string(i)).append(text, hash + 1, std::string::npos);
    }
  }
  return repeated;
}

std::string Outcome(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const JsonSyntaxError&) {
    return "syntax error";
  } catch (const Registry::InvalidJson&) {
    return "invalid JSON";
  } catch (const Registry::Full&) {
    return "full";
  }
  return "accepted";
}

TEST(JsonDocumentLimits, AcceptsAnyNestingInAnyPosition) {
  // Recursion would overflow the stack of 8 MiB even if it took only 64 bytes for each level.
  constexpr std::size_t kDepth = 150000;
  const std::string open_arrays(kDepth, '[');
  const std::string arrays = open_arrays + std::string(kDepth, ']');
  const std::string open_objects = Repeat(R"({"a":)", kDepth);
  const std::string objects = open_objects + "1" + std::string(kDepth, '}');
  const struct {
    const char* name;
    std::string text;
    const char* outcome;
  } rows[] = {
      {"top-level array", arrays, "invalid JSON"},
      {"top-level object", objects, "invalid JSON"},
      {"alternate objects and arrays", Repeat(R"([{"a":)", kDepth / 2) + "1" + Repeat("}]", kDepth / 2),
       "invalid JSON"},
      {"array as section", R"({"s":)" + arrays + "}", "invalid JSON"},
      {"object as section", R"({"s":)" + objects + "}", "invalid JSON"},
      {"array as key", R"({"s":{"k":)" + arrays + "}}", "invalid JSON"},
      {"object as key", R"({"s":{"k":)" + objects + "}}", "invalid JSON"},
      {"array replaced by a later member", R"({"s":{"k":)" + arrays + R"(,"k":"v"}})", "accepted"},
      {"unterminated array", open_arrays, "syntax error"},
      {"unterminated object", open_objects, "syntax error"},
      {"unterminated array as section", R"({"s":)" + open_arrays, "syntax error"},
      {"unterminated object as key", R"({"s":{"k":)" + open_objects, "syntax error"},
      {"too few closing brackets", open_arrays + std::string(kDepth - 1, ']'), "syntax error"},
      {"too many closing brackets", arrays + "]", "syntax error"},
      {"the wrong closing brackets", open_arrays + std::string(kDepth, '}'), "syntax error"},
      {"a number that does not fit a double", R"({"s":)" + open_arrays + "1e400" + std::string(kDepth, ']') + "}",
       "invalid JSON"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end("[t]\nk=v\n");
    EXPECT_EQ(Outcome([&] { back_end->WriteJson(row.text); }), row.outcome);
    EXPECT_EQ(back_end->Read("t", "k"), "v");
  }
}

TEST(JsonDocumentLimits, KeepsTheBeginningOfALargeRefusedValue) {
  constexpr std::size_t kMost = 65536;  // bytes of strings and names
  const std::string most(kMost, 'x');
  const std::string half = '"' + most.substr(kMost / 2) + '"';
  const std::string deep(100, '['), end_of_deep(100, ']');
  std::string members;  // all of the same length, so their order is that of their numbers
  for (int i = 1000; i < 1998; ++i) {
    members += "\"" + std::to_string(i) + "\":0,";
  }
  const struct {
    const char* name;
    std::string value;
    std::string kept;
  } rows[] = {
      {"nested deeply", std::string(5000, '[') + std::string(5000, ']'), deep + end_of_deep},
      {"siblings of a value that is nested too deeply", deep + "[[1],{\"a\":2},3],4" + end_of_deep,
       deep + "4" + end_of_deep},
      {"many elements", "[" + Repeat("1,", 100000) + "1]", "[" + Repeat("1,", 999) + "1]"},
      {"an array after the last element that fits", "[" + Repeat("1,", 1000) + "[2]]", "[" + Repeat("1,", 999) + "1]"},
      {"many members", "[{" + members + Repeat("\"z#\":0,", 100000) + "\"z\":0}]", "[{" + members + "\"z0\":0}]"},
      {"a string that fits", "[\"" + most + "\"]", "[\"" + most + "\"]"},
      {"a string that is a byte too long", "[\"" + most + "x\",1]", "[]"},
      {"a second string", "[" + half + ",\"" + most + "\"]", "[" + half + "]"},
      {"a name and a string that fit", "[{" + half + ":" + half + "}]", "[{" + half + ":" + half + "}]"},
      {"a name that is too long", "[{\"x\":" + half + "," + half + ":1}]", "[{\"x\":" + half + "}]"},
  };
  for (const auto& row : rows) {
    for (const bool in_key : {false, true}) {
      SCOPED_TRACE(std::string(row.name) + (in_key ? " as key" : " as section"));
      const std::string text = (in_key ? R"({"s":{"k":)" : R"({"s":)") + row.value + (in_key ? "}}" : "}");
      const JsonDocument document = JsonDocument::Parse(text);
      const JsonMember& section = document.Sections().at(0);
      const JsonMember& member = in_key ? *document.KeysOf(section).begin() : section;
      EXPECT_EQ(member.kind, JsonDocument::Kind::Refused);
      const std::string value = document.ValueOf(member);
      EXPECT_TRUE(value == row.kept) << value.size() << " bytes: " << value.substr(0, 200);
    }
  }
}

TEST(JsonDocumentLimits, CutsALargeRefusedStringBetweenCharacters) {
  for (const std::size_t size : {65534U, 65535U, 65536U}) {
    SCOPED_TRACE(size);
    const std::string ascii(size, 'x');
    const std::string text = "{\"s\":\"" + ascii + "\xC3\xA9\"}";
    const JsonDocument document = JsonDocument::Parse(text);
    EXPECT_EQ(document.ValueOf(document.Sections().at(0)), '"' + ascii + (size == 65534 ? "\xC3\xA9" : "") + '"');
  }
}

TEST(JsonDocumentLimits, TakesMemoryOfASmallMultipleOfTheText) {
  if (test_support::kSanitized) {
    GTEST_SKIP() << "the sanitizer's memory would be measured too";
  }
  if (test_support::kEmulated) {
    GTEST_SKIP() << "the emulator's memory would be measured too";
  }
  const struct {
    const char* name;
    std::string begin;
    std::string repeated;
    std::string end;
    std::size_t megabytes;
    std::size_t multiple;
    const char* outcome;
  } rows[] = {
      {"one string as value", R"({"s":{"k":")", "xxxxxxxx", R"("}})", 8, 8, "full"},
      {"one string as section", R"({"s":")", "xxxxxxxx", R"("})", 2, 8, "invalid JSON"},
      {"one string of escapes as section", R"({"s":")", "\\u0001", R"("})", 2, 8, "invalid JSON"},
      {"one name", R"({")", "xxxxxxxx", R"(":{"k":"v"}})", 2, 8, "full"},
      {"array as section", R"({"s":[0)", ",0", "]}", 1, 4, "invalid JSON"},
      {"nested arrays", "", "[", "", 1, 6, "syntax error"},
      {"pairs of arrays at the top", "[0", ",[]", "]", 2, 4, "invalid JSON"},
      {"members in a key", R"({"s":{"k":{"":0)", R"(,"a":{})", "}}}", 1, 4, "invalid JSON"},
      {"keys with numbers that are printed longer", R"({"s":{"k":0)", R"(,"":1e14)", "}}", 1, 8, "invalid JSON"},
      {"equal keys", R"({"s":{"k":"v")", R"(,"k":"v")", "}}", 1, 8, "accepted"},
      {"equal sections", R"({"s":{"k":"v"})", R"(,"s":{})", "}", 1, 8, "accepted"},
      {"different keys", R"({"s":{"k":"v")", R"(,"#":"v")", "}}", 1, 8, "full"},
      {"different empty sections", R"({"s":{"k":"v"})", R"(,"#":{})", "}", 1, 8, "accepted"},
      {"different sections", R"({"s":{"k":"v"})", R"(,"#":{"":""})", "}", 1, 8, "full"},
      {"deleted sections", R"({"s":{"k":"v"})", R"(,"#":null)", "}", 1, 8, "accepted"},
      {"one string without an end", R"({")", "xx - xxx", "", 3, 12, "syntax error"},
      {"one number", R"({"s":1)", "11111111", "}", 1, 12, "invalid JSON"},
      {"numbers that do not fit a double", R"({"s":[0)", ",1e400", "]}", 1, 4, "invalid JSON"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::size_t times = row.megabytes * kMegabyte / row.repeated.size();
    const std::string text = row.begin + Repeat(row.repeated, times) + row.end;
    const std::string answer = test_support::RunInChild([&] {
      BackEnd back_end;
      std::string outcome;
      const std::size_t growth =
          test_support::PeakGrowth([&] { outcome = Outcome([&] { back_end->WriteJson(text); }); });
      return growth <= row.multiple * text.size() ? outcome : outcome + ", memory " + std::to_string(growth);
    });
    EXPECT_EQ(answer, row.outcome);
  }
}

}  // namespace
