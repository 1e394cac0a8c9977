#include "registry/registry_format.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

namespace {

using namespace std::string_literals;

TEST(RegistryFormat, WritesAndReadsTheTextForm) {
  const struct {
    const char* name;
    RegistrySections sections;
    std::string text;
  } rows[] = {
      {"no section", {}, ""},
      {"two sections",
       {{"x]y", {}}, {"net", {{"name", "a=b%c"}, {"ip", "10.0.0.1"}}}},
       "[net]\nip=10.0.0.1\nname=a=b%25c\n[x%5dy]\n"},
      {"a section without keys", {{"s", {}}}, "[s]\n"},
      {"the empty section name", {{"", {{"k", "v"}}}}, "[]\nk=v\n"},
      {"an empty value has no equals sign", {{"s", {{"key", ""}}}}, "[s]\nkey\n"},
      {"the empty key name", {{"s", {{"", "v"}}}}, "[s]\n=v\n"},
      {"byte order of sections and keys",
       {{"b", {}}, {"B", {}}, {"a", {{"z", "1"}, {"Z", "2"}, {"", "3"}, {"zz", "4"}}}, {"ab", {}}},
       "[B]\n[a]\n=3\nZ=2\nz=1\nzz=4\n[ab]\n[b]\n"},
      {"bytes of 0x80 and above are last", {{"\x80", {}}, {"~", {}}}, "[~]\n[\x80]\n"},
      {"escapes of a section name", {{"%[]\r\n=", {}}}, "[%25%5b%5d%0d%0a=]\n"},
      {"escapes of a key name", {{"s", {{"%\r\n=[]", "v"}}}}, "[s]\n%25%0d%0a%3d[]=v\n"},
      {"escapes of a value", {{"s", {{"k", "%\r\n=[]"}}}}, "[s]\nk=%25%0d%0a=[]\n"},
      {"other bytes unchanged", {{"\x01\t\xFF"s, {{"\0\x80"s, "\0\x7F\xC3"s}}}}, "[\x01\t\xFF]\n\0\x80=\0\x7F\xC3\n"s},
      {"names of any case and bytes", {{"Net\x80", {{"I\xC3", "X"}}}}, "[Net\x80]\nI\xC3=X\n"},
      {"whitespace", {{" s ", {{"\tk ", " v "}}}}, "[ s ]\n\tk = v \n"},
      {"no comments", {{"s", {{"#a", "1"}, {";b", ""}}}}, "[s]\n#a=1\n;b\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(SerialiseRegistry(row.sections), row.text);
    EXPECT_EQ(ParseRegistry(row.text), row.sections);
  }
}

TEST(ParseRegistry, ReadsTextsThatTheDaemonDoesNotWrite) {
  const RegistrySections two_keys{{"s", {{"a", "1"}, {"b", "2"}}}};
  const struct {
    const char* name;
    std::string text;
    RegistrySections sections;
  } rows[] = {
      {"LF line ends", "[s]\na=1\nb=2\n", two_keys},
      {"CR LF line ends", "[s]\r\na=1\r\nb=2\r\n", two_keys},
      {"CR line ends", "[s]\ra=1\rb=2\r", two_keys},
      {"empty lines", "\n\n[s]\n\n\na=1\r\n\r\nb=2\n\n", two_keys},
      {"no line end after the last line", "[s]\na=1\nb=2", two_keys},
      {"line ends only", "\r\n\n\r", {}},
      {"a key before any header", "a=1", {{"null", {{"a", "1"}}}}},
      {"a key before the first header", "a=1\n[s]\nb=2\n", {{"null", {{"a", "1"}}}, {"s", {{"b", "2"}}}}},
      {"the default section is not emptied without its header", "a=1\n[s]\n", {{"null", {{"a", "1"}}}, {"s", {}}}},
      {"a header of the default section empties it", "a=1\n[null]\nb=2\n", {{"null", {{"b", "2"}}}}},
      {"a second header discards the keys of the first", "[s]\na=1\n[s]\nb=2\n", {{"s", {{"b", "2"}}}}},
      {"a second header without keys", "[s]\na=1\n[t]\n[s]\n", {{"s", {}}, {"t", {}}}},
      {"the last line of a key wins", "[s]\na=1\na=2\na\n", {{"s", {{"a", ""}}}}},
      {"a header without a closing bracket", "[abc", {{"abc", {}}}},
      {"bytes after the closing bracket", "[a]b", {{"a", {}}}},
      {"the first closing bracket counts", "[a]b]", {{"a", {}}}},
      {"a lone opening bracket", "[\nk=v", {{"", {{"k", "v"}}}}},
      {"a header with brackets inside", "[[a", {{"[a", {}}}},
      {"an escaped header", "[%5ba%5D%25]", {{"[a]%", {}}}},
      {"an escaped bracket that closes nothing", "[a%5db]c", {{"a]b", {}}}},
      {"a key with nothing after the equals sign", "[s]\nkey=", {{"s", {{"key", ""}}}}},
      {"the first equals sign splits", "[s]\na=b=c", {{"s", {{"a", "b=c"}}}}},
      {"an equals sign alone", "[s]\n=", {{"s", {{"", ""}}}}},
      {"an escaped equals sign does not split", "[s]\na%3db=c%3Dd", {{"s", {{"a=b", "c=d"}}}}},
      {"hexadecimal digits, wrong ones and too few", "[s]\nk=%41%4a%zz%4", {{"s", {{"k", "AJ\0"s + "4"}}}}},
      {"escapes in a key", "[s]\n%41%4a%zz%4", {{"s", {{"AJ\0"s + "4", ""}}}}},
      {"a header after a space", " [s]\n", {{"null", {{" [s]", ""}}}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(ParseRegistry(row.text), row.sections);
  }
}

TEST(RegistryFormat, ReadsAKeyThatBeginsWithABracketBackAsAHeader) {
  EXPECT_EQ(SerialiseRegistry({{"s", {{"[k]x", "v"}, {"z", "w"}}}}), "[s]\n[k]x=v\nz=w\n");
  EXPECT_EQ(ParseRegistry("[s]\n[k]x=v\nz=w\n"), (RegistrySections{{"k", {{"z", "w"}}}, {"s", {}}}));
}

// Its line is empty, and empty lines are skipped.
TEST(RegistryFormat, LosesTheEmptyKeyNameWithTheEmptyValue) {
  EXPECT_EQ(SerialiseRegistry({{"s", {{"", ""}}}}), "[s]\n\n");
  EXPECT_EQ(ParseRegistry("[s]\n\n"), (RegistrySections{{"s", {}}}));
}

TEST(RegistryFormat, ReadsBackEverySingleByteOfNamesAndValues) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text(1, static_cast<char>(byte));
    const std::string key = text == "[" ? "k[" : text;
    const RegistrySections table{{text, {{key, text}}}};
    EXPECT_EQ(ParseRegistry(SerialiseRegistry(table)), table) << "byte " << byte;
  }
}

// Texts of few different bytes, most of them with a meaning in the text form.
TEST(RegistryFormat, ReadsBackTheTablesOfRandomTexts) {
  const std::string alphabet = "%%%[]==\r\n 02235aAbdDxz\0\x80\xFF"s;
  std::mt19937 random(20240229);
  int read_back = 0;
  for (int i = 0; i < 6000; ++i) {
    std::string text(random() % 80, '\0');
    for (char& byte : text) {
      byte = random() % 8 == 0 ? static_cast<char>(random()) : alphabet[random() % alphabet.size()];
    }
    const RegistrySections table = ParseRegistry(text);
    const std::string written = SerialiseRegistry(table);
    const bool has_lost_line = ("\n" + written).find("\n\n") != std::string::npos;
    const bool has_bracket_key = std::any_of(table.begin(), table.end(), [](const auto& section) {
      const auto key = section.second.lower_bound("[");
      return key != section.second.end() && key->first.front() == '[';
    });
    if (!has_lost_line && !has_bracket_key) {
      ASSERT_EQ(ParseRegistry(written), table) << testing::PrintToString(text);
      ++read_back;
    }
    // Keys become headers and lines are lost only once.
    const std::string second = SerialiseRegistry(ParseRegistry(written));
    ASSERT_EQ(SerialiseRegistry(ParseRegistry(second)), second) << testing::PrintToString(text);
  }
  EXPECT_GT(read_back, 3000);
}

TEST(RegistryFormat, HandlesManyLines) {
  std::string text = "[s]\n";
  for (int i = 0; i < 50000; ++i) {
    text += std::to_string(i) + "=%25\r\n";
  }
  const RegistrySections sections = ParseRegistry(text);
  ASSERT_EQ(sections.size(), 1U);
  EXPECT_EQ(sections.at("s").size(), 50000U);
  EXPECT_EQ(sections.at("s").at("49999"), "%");
}

}  // namespace
