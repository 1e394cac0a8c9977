#include "registry/json_document.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace std::string_literals;

std::string Describe(const JsonDocument& document, const JsonMember& member) {
  const std::string name(document.NameOf(member));
  switch (member.kind) {
    case JsonDocument::Kind::Null:
      return name + ":null";
    case JsonDocument::Kind::Accepted:
      return name + "=";
    case JsonDocument::Kind::Refused:
      return name + "!" + document.ValueOf(member);
  }
  return "no such kind";
}

// One line for a document: "section={key=value key:null} section!refused".
std::string Describe(const JsonDocument& document) {
  if (!document.IsObject()) {
    EXPECT_TRUE(document.Sections().empty());
    return "no object";
  }
  std::string line;
  for (const JsonMember& section : document.Sections()) {
    line += (line.empty() ? "" : " ") + Describe(document, section);
    const char* separator = "{";
    for (const JsonMember& key : document.KeysOf(section)) {
      line += separator + Describe(document, key);
      if (key.kind == JsonDocument::Kind::Accepted) {
        line += document.ValueOf(key);
        EXPECT_EQ(JsonDocument::SizeOf(key), document.ValueOf(key).size());
      }
      separator = " ";
    }
    line += *separator == ' ' ? "}" : "";
  }
  return line;
}

std::string Parsed(const std::string& text) { return Describe(JsonDocument::Parse(text)); }

std::string SyntaxErrorOf(const std::string& text) {
  try {
    JsonDocument::Parse(text);
  } catch (const JsonSyntaxError& e) {
    return e.what();
  }
  return "no exception";
}

bool IsAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

TEST(JsonDocument, ReducesATextToSectionsAndKeys) {
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
      {"ascending byte order, letter case apart",
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
      {"an accepted key behind a refused one of another section", R"({"s":[{"k":"v"}],"t":{"k":"v"}})",
       R"(s![{"k":"v"}] t={k=v})"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Parsed(row.text), row.parsed);
  }
}

TEST(JsonDocument, KeepsTheLastOfSeveralMembersWithTheSameName) {
  const struct {
    const char* name;
    const char* text;
    const char* parsed;
  } rows[] = {
      {"keys", R"({"s":{"k":"1","j":"x","k":"2","k":"3"}})", "s={j=x k=3}"},
      {"a key that was refused", R"({"s":{"k":1,"k":"2"}})", "s={k=2}"},
      {"a key that is refused", R"({"s":{"k":"2","k":1}})", "s={k!1}"},
      {"a key that is null", R"({"s":{"k":"2","k":null}})", "s={k:null}"},
      {"sections are not joined", R"({"s":{"a":"1","b":"2"},"t":{"c":"3"},"s":{"d":"4"}})", "s={d=4} t={c=3}"},
      {"an empty section", R"({"s":{"a":"1"},"s":{}})", "s="},
      {"a section that was refused", R"({"s":5,"s":{"a":"1"}})", "s={a=1}"},
      {"a section that is refused", R"({"s":{"a":"1"},"s":5})", "s!5"},
      {"a section that is null", R"({"s":{"a":"1"},"s":null})", "s:null"},
      {"names that differ in their escapes only", R"({"s":{"\u006b":"1","k":"2"}})", "s={k=2}"},
      {"inside a refused value", R"({"s":[{"a":{"x":{}},"b":1,"a":[2]}]})", R"(s![{"a":[2],"b":1}])"},
      {"equal names in two sections", R"({"s":{"k":"1"},"t":{"k":"2"}})", "s={k=1} t={k=2}"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Parsed(row.text), row.parsed);
  }
}

TEST(JsonDocument, KeepsTheLastOfManyMembersWithTheSameName) {
  std::string keys;
  std::string sections;
  for (int i = 0; i < 1000; ++i) {
    keys += "\"k" + std::to_string(i % 3) + "\":\"" + std::to_string(i) + "\",";
    sections += "\"t" + std::to_string(i % 3) + "\":" + std::to_string(i) + ",";
  }
  EXPECT_EQ(Parsed("{" + sections + "\"s\":{" + keys + "\"k0\":null}}"),
            "s={k0:null k1=997 k2=998} t0!999 t1!997 t2!998");
}

// Nothing tells such members apart but their place.
TEST(JsonDocument, KeepsTheLastOfManyMembersWithoutNameAndValue) {
  std::string keys;
  std::string sections;
  for (int i = 0; i < 50; ++i) {
    keys += R"("":"",)";
    sections += R"("":{},)";
  }
  EXPECT_EQ(Parsed(R"({"s":{)" + keys + R"("":null}})"), "s={:null}");
  EXPECT_EQ(Parsed("{" + sections + R"("":null})"), ":null");
}

TEST(JsonDocument, HasNoSectionsIfTheTopIsNoObject) {
  for (const char* text : {"[]", "[1,{\"s\":{\"k\":\"v\"}}]", "\"s\"", "5", "-1.5", "true", "false", "null", "1e400"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(Parsed(text), "no object");
  }
}

std::string Folded(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return name;
}

// With the escapes of a quote and of a NUL only.
std::string Unescaped(const std::string& name) {
  std::string unescaped;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const bool is_nul = name.compare(i, 6, "\\u0000") == 0;
    i += is_nul ? 5 : name[i] == '\\' ? 1 : 0;
    unescaped += is_nul ? '\0' : name[i];
  }
  return unescaped;
}

// Names of all lengths about that of the part that is compared at once, of which some go on and some end.
TEST(JsonDocument, OrdersLongNamesAndSaysWhichAreTheSameApartFromTheirCase) {
  const std::string stem = "abcdefghijklmno";
  std::vector<std::string> names = {"", stem + "p", stem + "P", stem + "Pq", "x\\\"1", "X\\\"0"};
  for (std::size_t size = 1; size <= stem.size(); ++size) {
    for (const char* end : {"", "\\u0000", "\\u0000a"}) {
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
  std::mt19937 random(7);
  for (int round = 0; round < 20; ++round) {
    std::shuffle(names.begin(), names.end(), random);
    std::string text;
    for (const std::string& name : names) {
      text += (text.empty() ? "{\"" : ",\"") + name + "\":null";
    }
    text += '}';
    const JsonDocument document = JsonDocument::Parse(text);
    std::set<std::pair<std::string, std::string>> expected;  // folded and as written
    for (const std::string& name : names) {
      expected.emplace(Folded(Unescaped(name)), Unescaped(name));
    }
    auto next = expected.begin();
    ASSERT_EQ(document.Sections().size(), expected.size());
    for (const JsonMember& section : document.Sections()) {
      EXPECT_EQ(document.NameOf(section), next->second);
      const std::string folded = next->first;
      ++next;
      EXPECT_EQ(section.is_last_of_name, next == expected.end() || next->first != folded);
    }
  }
}

TEST(JsonDocument, SaysWhichNamesAreAscii) {
  const std::string text = "{\"a\\n\u007f\":{},\"\xC3\xA4\":{},\"\\u0080\":{}}";
  std::string seen;
  const JsonDocument document = JsonDocument::Parse(text);
  for (const JsonMember& section : document.Sections()) {
    seen += section.is_ascii ? 'y' : 'n';
  }
  EXPECT_EQ(seen, "ynn");
}

TEST(JsonDocument, RefusesWhatIsNotJson) {
  const struct {
    const char* name;
    std::string text;
  } rows[] = {
      {"nothing", ""},
      {"whitespace only", " \n"},
      {"a byte order mark only", "\xEF\xBB\xBF"},
      {"half a byte order mark", "\xEF\xBB{}"},
      {"a byte order mark of UTF-16", "\xFF\xFE{\0}\0"s},
      {"UTF-16", "{\0}\0"s},
      {"an open object", "{"},
      {"an object without a value", R"({"a")"},
      {"an object without a value behind the colon", R"({"a":)"},
      {"an object that does not go on", R"({"a":{})"},
      {"an open section", R"({"a":{"k":"v")"},
      {"an open array", "[1"},
      {"a lone closing brace", "}"},
      {"the wrong closing bracket", R"({"a":[})"},
      {"a trailing comma in an object", R"({"a":{},})"},
      {"a trailing comma in an array", "[1,]"},
      {"a leading comma", "{,}"},
      {"a missing comma", R"({"a":{} "b":{}})"},
      {"a missing colon", R"({"a" {}})"},
      {"two colons", R"({"a"::{}})"},
      {"a name that is no string", "{a:{}}"},
      {"a number as name", "{1:{}}"},
      {"single quotes", "{'a':{}}"},
      {"something behind the end", "{}{}"},
      {"a NUL byte after the end", "{}\0"s},
      {"a NUL byte and more after the end", "{}\0garbage"s},
      {"a NUL byte after spaces and a number", " 1\0"s},
      {"a NUL byte before the beginning", "\0{}"s},
      {"a word behind the end", "{} x"},
      {"two values", "1 2"},
      {"a comment", "{} // comment"},
      {"a block comment", "/* comment */ {}"},
      {"an unknown word", "nil"},
      {"a capitalised word", "True"},
      {"a word cut short", "nul"},
      {"NaN", R"({"a":NaN})"},
      {"infinity", R"({"a":-Infinity})"},
      {"a leading zero", R"({"a":01})"},
      {"a leading plus", R"({"a":+1})"},
      {"a leading point", R"({"a":.5})"},
      {"a trailing point", R"({"a":1.})"},
      {"an exponent without digits", R"({"a":1e})"},
      {"a signed exponent without digits", R"({"a":1e+})"},
      {"a lone minus", R"({"a":-})"},
      {"a hexadecimal number", R"({"a":0x10})"},
      {"an open string", R"({"a)"},
      {"an open string behind a backslash", "\"\\"},
      {"an unknown escape", R"(["\x41"])"},
      {"a short escape", R"(["\u12"])"},
      {"an escape with a bad digit", R"(["\u12g4"])"},
      {"a high surrogate alone", R"(["\ud800"])"},
      {"a high surrogate before something else", R"(["\ud800\u0041"])"},
      {"a low surrogate alone", R"(["\udc00"])"},
      {"a line feed in a string", "[\"a\nb\"]"},
      {"a NUL byte in a string", "[\"a\0b\"]"s},
      {"a lone continuation byte", "[\"\x80\"]"},
      {"an overlong form", "[\"\xC0\x80\"]"},
      {"a character cut short", "[\"\xC3\"]"},
      {"a character cut short by the end", "[\"\xE2\x82"},
      {"an encoded surrogate", "[\"\xED\xA0\x80\"]"},
      {"beyond Unicode", "[\"\xF4\x90\x80\x80\"]"},
      {"the byte 0xFF", "[\"\xFF\"]"},
      {"Latin-1 in a name", "{\"\xE9\":{}}"},
      {"a byte that is no character, outside strings", "{\xFF}"},
      {"a letter beyond ASCII outside strings", "{\xC3\xA9}"},
      {"a bad entry before the error", R"({"a":5,)"},
      {"a number that is too large before the error", R"({"a":1e400,)"},
      {"an error before a number that is too large", R"({,"a":1e400})"},
      {"a number that is too large and something behind the end", "1e400 x"},
      {"a leading zero of a number that is too large", "[1e400,01]"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string error = SyntaxErrorOf(row.text);
    EXPECT_EQ(error.find("parse error - unexpected "), 0U) << error;
    EXPECT_EQ(error.find("unexpected unexpected"), std::string::npos) << error;
    EXPECT_GT(error.size(), std::string("parse error - unexpected ").size());
    EXPECT_TRUE(IsAscii(error)) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }
}

TEST(JsonDocument, BoundsTheTextOfASyntaxError) {
  const struct {
    const char* name;
    std::string text;
  } rows[] = {
      {"a long open string", "\"" + std::string(100000, 'a')},
      {"a long open string of two-byte characters",
       [] {
         std::string text = "\"";
         for (int i = 0; i < 50000; ++i) {
           text += "\xC3\xA9";
         }
         return text;
       }()},
      {"a long word", "n" + std::string(100000, 'x')},
      {"a long number", std::string(100000, '1') + "x"},
      {"a long name", "{\"" + std::string(100000, 'a') + "\" 1}"},
      {"a string with separators",
       "\"" + std::string(100000, ' ') + " - unexpected \xC3\xA9" + std::string(100000, '-')},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string error = SyntaxErrorOf(row.text);
    EXPECT_EQ(error.find("parse error - unexpected "), 0U) << error.substr(0, 100);
    EXPECT_LE(error.size(), 4000U);
    EXPECT_TRUE(IsAscii(error));
  }
}

// The input is quoted behind the reason; what it holds must not hide the reason.
TEST(JsonDocument, SaysTheReasonWhateverTheTextHolds) {
  std::string with_dash = SyntaxErrorOf("{\"a - b");
  std::replace(with_dash.begin() + static_cast<std::ptrdiff_t>(std::string("parse error -").size()), with_dash.end(),
               '-', '+');
  EXPECT_EQ(with_dash, SyntaxErrorOf("{\"a + b"));
}

TEST(JsonDocument, RefusesNumbersThatNoDoubleHolds) {
  const struct {
    const char* name;
    std::string number;
  } rows[] = {
      {"1e400", "1e400"},
      {"negative", "-1e400"},
      {"capital exponent", "1E+400"},
      {"with a fraction", "123.456e4000"},
      {"400 digits", std::string(400, '9')},
      {"minus 400 digits", "-" + std::string(400, '9')},
      {"400 digits with a fraction", std::string(400, '9') + ".5"},
      {"a long exponent", "1e" + std::string(400, '9')},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(Parsed(R"({"a":)" + row.number + "}").substr(0, 2), "a!");
    EXPECT_EQ(Parsed(R"({"s":{"k":)" + row.number + R"(,"l":"v"}})").substr(0, 5), "s={k!");
    EXPECT_EQ(Parsed(R"({"a":{"k":"v"},"b":[[)" + row.number + R"(]],"c":null})").find("a={k=v} b![["), 0U);
    EXPECT_EQ(Parsed(row.number), "no object");
    EXPECT_EQ(SyntaxErrorOf("[" + row.number + ",]").find("parse error - unexpected "), 0U);
  }
}

TEST(JsonDocument, KeepsStringsWithDigitsNextToANumberThatNoDoubleHolds) {
  EXPECT_EQ(Parsed(R"({"1e4000":{"123456":"1e400 \" 789012 \\"},"x\\":{"k":"3456"},"z":1e400})").substr(0, 56),
            R"(1e4000={123456=1e400 " 789012 \} x\={k=3456} z!)" + Parsed(R"({"z":1e400})").substr(2));
}

// Others are printed as they are, also next to one that cannot be.
TEST(JsonDocument, KeepsOtherNumbersNextToOneThatNoDoubleHolds) {
  EXPECT_EQ(Parsed(R"({"a":123456,"b":[-7.125],"z":1e400})").substr(0, 20), "a!123456 b![-7.125] ");
}

TEST(JsonDocument, AcceptsNumbersThatVanish) { EXPECT_EQ(Parsed(R"({"a":1e-400})"), "a!0.0"); }

}  // namespace
