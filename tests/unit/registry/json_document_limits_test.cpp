// Hostile sizes: any nesting, and texts of tens of megabytes.
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

std::string Repeat(const std::string& text, std::size_t times) {
  std::string repeated;
  repeated.reserve(text.size() * times);
  for (std::size_t i = 0; i < times; ++i) {
    repeated += text;
  }
  return repeated;
}

// Repeats the text up to the size, with the number of the repetition in the place of "#".
std::string Numbered(const std::string& text, std::size_t size) {
  const std::size_t hash = text.find('#');
  std::string repeated;
  repeated.reserve(size + 100);
  for (int i = 0; repeated.size() < size; ++i) {
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

TEST(JsonDocumentLimits, TakesAnyNestingInAnyPosition) {
  constexpr std::size_t kDepth = 300000;
  const std::string open_arrays = Repeat("[", kDepth);
  const std::string arrays = open_arrays + Repeat("]", kDepth);
  const std::string open_objects = Repeat(R"({"a":)", kDepth);
  const std::string objects = open_objects + "1" + Repeat("}", kDepth);
  const struct {
    const char* name;
    std::string text;
    const char* outcome;
  } rows[] = {
      {"top-level array", arrays, "invalid JSON"},
      {"top-level object", objects, "invalid JSON"},
      {"objects and arrays in turn", Repeat(R"([{"a":)", kDepth / 2) + "1" + Repeat("}]", kDepth / 2), "invalid JSON"},
      {"array as section", R"({"s":)" + arrays + "}", "invalid JSON"},
      {"object as section", R"({"s":)" + objects + "}", "invalid JSON"},
      {"array as key", R"({"s":{"k":)" + arrays + "}}", "invalid JSON"},
      {"object as key", R"({"s":{"k":)" + objects + "}}", "invalid JSON"},
      {"array replaced by a later member", R"({"s":{"k":)" + arrays + R"(,"k":"v"}})", "accepted"},
      {"unterminated array", open_arrays, "syntax error"},
      {"unterminated object", open_objects, "syntax error"},
      {"unterminated array as section", R"({"s":)" + open_arrays, "syntax error"},
      {"unterminated object as key", R"({"s":{"k":)" + open_objects, "syntax error"},
      {"too few closing brackets", open_arrays + Repeat("]", kDepth - 1), "syntax error"},
      {"too many closing brackets", arrays + "]", "syntax error"},
      {"the wrong closing brackets", open_arrays + Repeat("}", kDepth), "syntax error"},
      {"a number that no double holds inside", R"({"s":)" + open_arrays + "1e400" + Repeat("]", kDepth) + "}",
       "invalid JSON"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end("[t]\nk=v\n");
    EXPECT_EQ(Outcome([&] { back_end->WriteJson(row.text); }), row.outcome);
    EXPECT_EQ(back_end->Read("t", "k"), "v");
  }
}

TEST(JsonDocumentLimits, KeepsOnlyTheBeginningOfALargeRefusedValue) {
  const struct {
    const char* name;
    std::string value;
    std::string beginning;
  } rows[] = {
      {"nested deeply", Repeat("[", 5000) + Repeat("]", 5000), Repeat("[", 100) + "]"},
      {"many elements", "[" + Repeat("1,", 100000) + "1]", "[" + Repeat("1,", 999) + "1]"},
      {"many members",
       [] {
         std::string text = "[{";
         for (int i = 100000; i < 200000; ++i) {
           text += "\"" + std::to_string(i) + "\":0,";
         }
         return text + R"("z":0}])";
       }(),
       R"([{"100000":0,"100001":0,)"},
      {"long strings", R"([")" + Repeat("a", 60000) + R"(",")" + Repeat("b", 60000) + R"("])",
       R"([")" + Repeat("a", 60000) + R"("])"},
      {"siblings of what is nested too deeply", Repeat("[", 100) + "[[1],{\"a\":2},3],4" + Repeat("]", 100),
       Repeat("[", 100) + "4]"},
  };
  for (const auto& row : rows) {
    for (const bool in_key : {false, true}) {
      SCOPED_TRACE(std::string(row.name) + (in_key ? " as key" : " as section"));
      const std::string text = (in_key ? R"({"s":{"k":)" : R"({"s":)") + row.value + (in_key ? "}}" : "}");
      const JsonDocument document = JsonDocument::Parse(text);
      ASSERT_EQ(document.Sections().size(), 1U);
      const JsonMember& section = document.Sections().front();
      const JsonMember& member = in_key ? *document.KeysOf(section).begin() : section;
      EXPECT_EQ(member.kind, JsonDocument::Kind::Refused);
      const std::string value = document.ValueOf(member);
      EXPECT_EQ(value.substr(0, row.beginning.size()), row.beginning);
      EXPECT_LT(value.size(), 100000U);
    }
  }
}

TEST(JsonDocumentLimits, CountsStringsAndNamesOfARefusedValue) {
  constexpr std::size_t kMost = 65536;
  const std::string quoted_half = '"' + std::string(kMost / 2, 'x') + '"';
  const struct {
    const char* name;
    std::string value;
    std::string kept;
  } rows[] = {
      {"a string that just fits", "[\"" + std::string(kMost, 'x') + "\"]", "[\"" + std::string(kMost, 'x') + "\"]"},
      {"a string that is a byte too long", "[\"" + std::string(kMost + 1, 'x') + "\",1]", "[]"},
      {"a name and a string that just fit", "{" + quoted_half + ":" + quoted_half + "}",
       "{" + quoted_half + ":" + quoted_half + "}"},
      {"a name too many", "{\"x\":" + quoted_half + "," + quoted_half + ":1}", "{\"x\":" + quoted_half + "}"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string text = R"({"s":{"k":[)" + row.value + "]}}";
    const JsonDocument document = JsonDocument::Parse(text);
    // Not EXPECT_EQ, which would print both.
    EXPECT_TRUE(document.ValueOf(*document.KeysOf(document.Sections().front()).begin()) == "[" + row.kept + "]");
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
    const char* begin;
    const char* repeated;
    const char* end;
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
      {"keys with numbers that print longer", R"({"s":{"k":0)", R"(,"":1e14)", "}}", 1, 8, "invalid JSON"},
      {"equal keys", R"({"s":{"k":"v")", R"(,"k":"v")", "}}", 1, 8, "accepted"},
      {"equal sections", R"({"s":{"k":"v"})", R"(,"s":{})", "}", 1, 8, "accepted"},
      {"different keys", R"({"s":{"k":"v")", R"(,"#":"v")", "}}", 1, 8, "full"},
      {"different empty sections", R"({"s":{"k":"v"})", R"(,"#":{})", "}", 1, 8, "accepted"},
      {"different sections", R"({"s":{"k":"v"})", R"(,"#":{"":""})", "}", 1, 8, "full"},
      {"deleted sections", R"({"s":{"k":"v"})", R"(,"#":null)", "}", 1, 8, "accepted"},
      {"one string without an end", R"({")", "xx - xxx", "", 3, 12, "syntax error"},
      {"one number", R"({"s":1)", "11111111", "}", 1, 12, "invalid JSON"},
      {"numbers that no double holds", R"({"s":[0)", ",1e400", "]}", 1, 4, "invalid JSON"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string text = row.begin + Numbered(row.repeated, row.megabytes * kMegabyte) + row.end;
    const std::string answer = test_support::RunInChild([&] {
      BackEnd back_end;
      std::string outcome;
      const std::size_t growth =
          test_support::PeakGrowth([&] { outcome = Outcome([&] { back_end->WriteJson(text); }); });
      return growth <= row.multiple * row.megabytes * kMegabyte
                 ? outcome
                 : outcome + ", " + std::to_string(growth / row.megabytes / kMegabyte) + " times the text";
    });
    EXPECT_EQ(answer, row.outcome);
  }
}

}  // namespace
