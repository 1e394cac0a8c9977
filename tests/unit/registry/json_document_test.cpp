#include "registry/json_document.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/algorithm/string.hpp>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "registry/json_printer.h"

namespace {

using namespace std::string_literals;

// "name:null", "name=" or "name!text of the refused value".
std::string Describe(const JsonDocument& document, const JsonMember& member) {
  const std::string name(document.NameOf(member));
  switch (member.kind) {
    case JsonDocument::Kind::Null:
      return name + ":null";
    case JsonDocument::Kind::Accepted:
      return name + "=";
    default:
      return name + "!" + document.ValueOf(member);
  }
}

// Returns one line: "section={key=value key:null} section!refused".
std::string Parsed(const std::string& text) {
  const JsonDocument document = JsonDocument::Parse(text);
  if (!document.IsObject()) {
    EXPECT_TRUE(document.Sections().empty());
    return "no object";
  }
  std::string line;
  for (const JsonMember& section : document.Sections()) {
    line += (line.empty() ? "" : " ") + Describe(document, section);
    std::string keys;
    for (const JsonMember& key : document.KeysOf(section)) {
      keys += (keys.empty() ? "{" : " ") + Describe(document, key);
      if (key.kind == JsonDocument::Kind::Accepted) {
        keys += document.ValueOf(key);
        EXPECT_EQ(JsonDocument::SizeOf(key), document.ValueOf(key).size());
      }
    }
    line += keys.empty() ? "" : keys + "}";
  }
  return line;
}

std::string SyntaxErrorOf(const std::string& text) {
  try {
    JsonDocument::Parse(text);
  } catch (const JsonSyntaxError& e) {
    return e.what();
  }
  return "no exception";
}

TEST(JsonDocument, HasTheSectionsAndKeysOfTheText) {
  const struct {
    const char* name;
    std::string text;
    std::string parsed;
  } rows[] = {
      {"the empty object", "{}", ""},
      {"whitespace", " \t\r\n{ \n} ", ""},
      {"a byte order mark", "\xEF\xBB\xBF{}", ""},
      {"sections and keys", R"({"s":{"k":"v","l":"w"},"t":{"k":"x"}})", "s={k=v l=w} t={k=x}"},
      {"an empty section", R"({"s":{}})", "s="},
      {"an empty name and value", R"({"":{"":""}})", "={=}"},
      {"nulls", R"({"s":null,"t":{"k":null}})", "s:null t={k:null}"},
      {"ascending byte order, regardless of case",
       "{\"b\":{},\"a\":{\"z\":\"\",\"Z\":\"\",\"zz\":\"\",\"\":\"\"},\"B\":null,\"\xC3\xA4\":{}}",
       "a={= Z= z= zz=} B:null b= \xC3\xA4="},
      {"names as written", R"({"Net":{},"NET":{},"net":{}})", "NET= Net= net="},
      {"escapes", R"({"\u0041\n":{"\"":"\\\/\b\f\n\r\t\u00e9\ud83d\ude00"}})",
       "A\n={\"=\\/\b\f\n\r\t\xC3\xA9\xF0\x9F\x98\x80}"},
      {"NUL characters", R"({"a\u0000":{"\u0000b":"c\u0000d"}})", "a\0={\0b=c\0d}"s},
      {"refused sections", R"({"a":1,"b":"x","c":true,"d":false,"e":[],"f":-1,"g":1.5})",
       R"(a!1 b!"x" c!true d!false e![] f!-1 g!1.5)"},
      {"refused keys", R"({"s":{"a":1,"c":true,"d":false,"e":[],"f":-1,"g":1.5,"h":{}}})",
       R"(s={a!1 c!true d!false e![] f!-1 g!1.5 h!{}})"},
      {"a refused value is printed compactly", R"({"s":[ 1 , { "z" : null , "a" : [ "x" , true , {} ] } ]})",
       R"(s![1,{"a":["x",true,{}],"z":null}])"},
      {"a refused object in a key", R"({"s":{"k":{"b":{"c":"v"},"a":"w"},"l":"v"}})",
       R"(s={k!{"a":"w","b":{"c":"v"}} l=v})"},
      {"several refused values", R"({"s":{"k":[1,2],"l":{"m":3},"n":[]},"t":[4]})",
       R"(s={k![1,2] l!{"m":3} n![]} t![4])"},
      {"a refused value with escapes", R"({"s":["\u0001\"\u00e9"]})", "s![\"\\u0001\\\"\xC3\xA9\"]"},
      {"integers of 64 bits", R"({"a":18446744073709551615,"b":-9223372036854775808})",
       "a!18446744073709551615 b!-9223372036854775808"},
      {"a number that is rounded to zero", R"({"a":1e-400})", "a!0.0"},
      {"a key with the path of a refused value", R"({"s":[{"k":"v"}],"t":{"k":"v"}})", R"(s![{"k":"v"}] t={k=v})"},
      // The last member with the same name:
      {"keys", R"({"s":{"k":"1","j":"x","k":"2","k":"3"}})", "s={j=x k=3}"},
      {"a refused key before", R"({"s":{"k":1,"k":"2"}})", "s={k=2}"},
      {"a refused key after", R"({"s":{"k":"2","k":1}})", "s={k!1}"},
      {"a null key after", R"({"s":{"k":"2","k":null}})", "s={k:null}"},
      {"sections are not joined", R"({"s":{"a":"1","b":"2"},"t":{"c":"3"},"s":{"d":"4"}})", "s={d=4} t={c=3}"},
      {"an empty section after", R"({"s":{"a":"1"},"s":{}})", "s="},
      {"a refused section before", R"({"s":5,"s":{"a":"1"}})", "s={a=1}"},
      {"a refused section after", R"({"s":{"a":"1"},"s":5})", "s!5"},
      {"a null section after", R"({"s":{"a":"1"},"s":null})", "s:null"},
      {"names that differ only in their escapes", R"({"s":{"\u006b":"1","k":"2"}})", "s={k=2}"},
      {"members of a refused value", R"({"s":[{"a":{"x":{}},"b":1,"a":[2]}]})", R"(s![{"a":[2],"b":1}])"},
      {"the same name in two sections", R"({"s":{"k":"1"},"t":{"k":"2"}})", "s={k=1} t={k=2}"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Parsed(row.text), row.parsed);
  }
}

TEST(JsonDocument, HasNoSectionsIfTheTopLevelValueIsNotAnObject) {
  for (const char* text : {"[]", "[1,{\"s\":{\"k\":\"v\"}}]", "\"s\"", "5", "-1.5", "true", "false", "null", "1e400"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(Parsed(text), "no object");
  }
}

TEST(JsonDocument, KeepsTheLastOfManyMembersWithTheSameName) {
  std::string keys, sections, empty_keys, empty_sections;
  for (int i = 0; i < 1000; ++i) {
    keys += "\"k" + std::to_string(i % 3) + "\":\"" + std::to_string(i) + "\",";
    sections += "\"t" + std::to_string(i % 3) + "\":" + std::to_string(i) + ",";
    // These differ only in their position.
    empty_keys += R"("":"",)";
    empty_sections += R"("":{},)";
  }
  EXPECT_EQ(Parsed("{" + sections + "\"s\":{" + keys + "\"k0\":null}}"),
            "s={k0:null k1=997 k2=998} t0!999 t1!997 t2!998");
  EXPECT_EQ(Parsed(R"({"s":{)" + empty_keys + R"("":null}})"), "s={:null}");
  EXPECT_EQ(Parsed("{" + empty_sections + R"("":null})"), ":null");
}

// Names are compared in parts of seven bytes. These are shorter and longer, and some begin with others.
TEST(JsonDocument, SortsLongNamesAndMarksTheLastOfNamesThatDifferInCase) {
  const std::string stem = "abcdefghijklmno";
  std::vector<std::string> names = {"", stem + "p", stem + "P", stem + "Pq", "x\"1", "X\"0"};
  for (std::size_t size = 1; size <= stem.size(); ++size) {
    for (const std::string& end : {""s, "\0"s, "\0a"s}) {
      names.push_back(stem.substr(0, size) + end);
    }
    for (int variant = 0; variant < 20; ++variant) {
      std::string name = stem.substr(0, size);
      for (std::size_t i = 0; i < size; ++i) {
        name[i] = static_cast<char>(name[i] - (variant >> i % 5 & 1 ? 'a' - 'A' : 0));
      }
      names.push_back(name);
    }
  }
  std::set<std::pair<std::string, std::string>> expected;  // in lower case and as written
  for (const std::string& name : names) {
    expected.emplace(boost::to_lower_copy(name), name);
  }
  std::mt19937 random(7);
  for (int round = 0; round < 20; ++round) {
    std::shuffle(names.begin(), names.end(), random);
    std::string text = "{";
    for (const std::string& name : names) {
      AppendJsonString(text, name);
      text += ":null,";
    }
    text.back() = '}';
    const JsonDocument document = JsonDocument::Parse(text);
    ASSERT_EQ(document.Sections().size(), expected.size());
    auto next = expected.begin();
    for (const JsonMember& section : document.Sections()) {
      const auto current = next++;
      EXPECT_EQ(document.NameOf(section), current->second);
      EXPECT_EQ(section.is_last_of_name, next == expected.end() || next->first != current->first);
    }
  }
}

TEST(JsonDocument, MarksNamesThatAreAscii) {
  const std::string text = "{\"a\\n\u007f\":{},\"\xC3\xA4\":{},\"\\u0080\":{}}";
  std::vector<bool> ascii;
  const JsonDocument document = JsonDocument::Parse(text);
  for (const JsonMember& section : document.Sections()) {
    ascii.push_back(section.is_ascii);
  }
  EXPECT_EQ(ascii, (std::vector<bool>{true, false, false}));
}

TEST(JsonDocument, RefusesATextThatIsNotJson) {
  std::string accents(100000, '\xC3');
  for (std::size_t i = 1; i < accents.size(); i += 2) {
    accents[i] = '\xA9';
  }
  const struct {
    const char* defect;
    std::vector<std::string> texts;
  } rows[] = {
      {"no value", {"", " \n", "\xEF\xBB\xBF"}},
      {"half a byte order mark, and UTF-16", {"\xEF\xBB{}", "\xFF\xFE{\0}\0"s, "{\0}\0"s}},
      {"an object or array that does not end",
       {"{", R"({"a")", R"({"a":)", R"({"a":{})", R"({"a":{"k":"v")", R"({"a":5,)", R"({"a":1e400,)", "[1"}},
      {"a wrong bracket", {"}", R"({"a":[})"}},
      {"a wrong comma", {R"({"a":{},})", "[1,]", "[1e400,]", "{,}", R"({,"a":1e400})", R"({"a":{} "b":{}})"}},
      {"a wrong colon", {R"({"a" {}})", R"({"a"::{}})"}},
      {"a name that is not a string", {"{a:{}}", "{1:{}}", "{'a':{}}"}},
      {"bytes after the value", {"{}{}", "{} x", "1 2", "1e400 x", "{}\0"s, "{}\0garbage"s, " 1\0"s}},
      {"a NUL byte before the value", {"\0{}"s}},
      {"a comment", {"{} // comment", "/* comment */ {}"}},
      {"an unknown word", {"nil", "True", "nul", R"({"a":NaN})", R"({"a":-Infinity})"}},
      {"a number with a wrong sign or point", {R"({"a":+1})", R"({"a":.5})", R"({"a":1.})", R"({"a":-})"}},
      {"a number with wrong digits", {R"({"a":01})", "[1e400,01]", R"({"a":1e})", R"({"a":1e+})", R"({"a":0x10})"}},
      {"a string that does not end", {R"({"a)", "\"\\", "[\"\xE2\x82"}},
      {"a wrong escape", {R"(["\x41"])", R"(["\u12"])", R"(["\u12g4"])"}},
      {"half of a surrogate pair", {R"(["\ud800"])", R"(["\ud800\u0041"])", R"(["\udc00"])"}},
      {"a control character in a string", {"[\"a\nb\"]", "[\"a\0b\"]"s}},
      {"incomplete UTF-8", {"[\"\x80\"]", "[\"\xC3\"]", "[\"\xFF\"]", "{\"\xE9\":{}}"}},
      {"invalid UTF-8", {"[\"\xC0\x80\"]", "[\"\xED\xA0\x80\"]", "[\"\xF4\x90\x80\x80\"]"}},
      {"bytes above ASCII outside strings", {"{\xFF}", "{\xC3\xA9}"}},
      {"a long string", {"\"" + std::string(100000, 'a'), "\"" + accents, "{\"" + std::string(100000, 'a') + "\" 1}"}},
      {"a long word or number", {"n" + std::string(100000, 'x'), std::string(100000, '1') + "x"}},
      {"the words of an error", {"\"" + std::string(100000, ' ') + " - unexpected " + std::string(100000, '-')}},
  };
  for (const auto& row : rows) {
    for (const std::string& text : row.texts) {
      SCOPED_TRACE(row.defect + (": " + testing::PrintToString(text.substr(0, 50))));
      const std::string error = SyntaxErrorOf(text);
      const std::string prefix = "parse error - unexpected ";
      EXPECT_EQ(error.find(prefix), 0U) << error.substr(0, 100);
      EXPECT_GT(error.size(), prefix.size());
      EXPECT_LE(error.size(), 4000U);
      EXPECT_EQ(error.find("unexpected unexpected"), std::string::npos) << error;
      EXPECT_TRUE(std::all_of(error.begin(), error.end(), [](char c) { return c >= ' ' && c <= '~'; })) << error;
    }
  }
}

// A quoted text after the reason must not hide the reason.
TEST(JsonDocument, PrintsTheReasonOfASyntaxErrorForAnyText) {
  EXPECT_EQ(boost::replace_all_copy(SyntaxErrorOf("{\"a - b"), "-", "+"),
            boost::replace_all_copy(SyntaxErrorOf("{\"a + b"), "-", "+"));
}

TEST(JsonDocument, RefusesNumbersThatDoNotFitADouble) {
  const std::string digits(400, '9');
  for (const std::string& number :
       {"1e400"s, "-1e400"s, "1E+400"s, "123.456e4000"s, digits, "-" + digits, digits + ".5", "1e" + digits}) {
    SCOPED_TRACE(number);
    EXPECT_EQ(Parsed(R"({"a":)" + number + "}"), "a!" + number);
    EXPECT_EQ(Parsed(R"({"s":{"k":)" + number + R"(,"l":"v"}})"), "s={k!" + number + " l=v}");
    EXPECT_EQ(Parsed(R"({"a":{"k":"v"},"b":[[)" + number + R"(]],"c":null})"), "a={k=v} b![[" + number + "]] c:null");
    EXPECT_EQ(Parsed(number), "no object");
  }
}

TEST(JsonDocument, KeepsStringsAndNumbersNextToANumberThatDoesNotFitADouble) {
  EXPECT_EQ(Parsed(R"({"1e4000":{"123456":"1e400 \" 789012 \\"},"x\\":{"k":"3456"},"z":1e400})"),
            R"(1e4000={123456=1e400 " 789012 \} x\={k=3456} z!1e400)");
  EXPECT_EQ(Parsed(R"({"a":123456,"b":[-7.125],"z":1e400})"), "a!123456 b![-7.125] z!1e400");
}

}  // namespace
