#include "registry/json_printer.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

using namespace std::string_literals;

TEST(PrintJson, PrintsCompactlyInByteOrder) {
  const struct {
    const char* name;
    RegistrySections sections;
    std::string json;
  } rows[] = {
      {"an empty registry", {}, "{}"},
      {"sections and keys",
       {{"ui", {{"lang", "en"}}}, {"net", {{"ip", "10.0.0.2"}, {"dhcp", "no"}}}},
       R"({"net":{"dhcp":"no","ip":"10.0.0.2"},"ui":{"lang":"en"}})"},
      {"capitals first", {{"a", {{"b", ""}, {"B", ""}}}, {"B", {}}}, R"({"B":{},"a":{"B":"","b":""}})"},
      {"empty names", {{"", {{"", ""}}}}, R"({"":{"":""}})"},
      {"characters with an escape",
       {{"s", {{"\"", "\\/\b\f\n\r\t\x1F\0\x7F"s}}}},
       "{\"s\":{\"\\\"\":\"\\\\/\\b\\f\\n\\r\\t\\u001f\\u0000\x7F\"}}"},
      {"UTF-8 unchanged",
       {{"\xC3\xA9", {{"\xE2\x82\xAC", "\xF0\x9F\x98\x80"}}}},
       "{\"\xC3\xA9\":{\"\xE2\x82\xAC\":\"\xF0\x9F\x98\x80\"}}"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(PrintJson(row.sections), row.json);
  }
}

TEST(AppendJsonString, EscapesAByteAnywhereInAText) {
  for (std::size_t size = 1; size <= 25; ++size) {
    for (std::size_t place = 0; place != size; ++place) {
      for (char byte = 0; byte != 0x7F; ++byte) {
        std::string text(size, 'a');
        text[place] = byte;
        std::string json;
        AppendJsonString(json, text);
        const bool is_escaped = byte < 0x20 || byte == '"' || byte == '\\';
        ASSERT_EQ(json != '"' + text + '"', is_escaped) << testing::PrintToString(text);
      }
    }
  }
}

TEST(PrintJson, NamesTheStringThatIsNotUtf8) {
  const struct {
    const char* name;
    RegistrySections sections;
    std::string string;
  } rows[] = {
      {"a value",
       {{"a", {{"k", "v"}}}, {"net", {{"id", "ok"}, {"ip", "\xFF"}, {"z", "\xFF"}}}},
       "value of key 'ip' in section 'net'"},
      {"a key name", {{"net", {{"i\xC3", "\xFF"}}}}, "name of key 'i%c3' in section 'net'"},
      {"a section name", {{"n\x80", {{"\xFF", "\xFF"}}}}, "name of section 'n%80'"},
      {"unprintable names",
       {{"\n%\xC3\xA9\0"s, {{"\0\x7F"s, "\xC3"}}}},
       "value of key '%00%7f' in section '%0a%25%c3%a9%00'"},
      {"an encoded surrogate", {{"s", {{"k", "\xED\xA0\x80"}}}}, "value of key 'k' in section 's'"},
      {"a character cut short", {{"s", {{"k", "abc\xE2\x82"}}}}, "value of key 'k' in section 's'"},
      {"an overlong form", {{"s", {{"k", "\xC0\x80"}}}}, "value of key 'k' in section 's'"},
      {"empty names", {{"", {{"", "\x80"}}}}, "value of key '' in section ''"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    try {
      ADD_FAILURE() << PrintJson(row.sections);
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(e.what(), "No JSON: " + row.string + " is not UTF-8");
    }
  }
}

TEST(PrintJson, ShortensTheErrorForALongName) {
  try {
    ADD_FAILURE() << PrintJson({{std::string(5000, '\x80'), {}}});
  } catch (const std::runtime_error& e) {
    EXPECT_LE(std::string(e.what()).size(), 4000U);
  }
}

}  // namespace
