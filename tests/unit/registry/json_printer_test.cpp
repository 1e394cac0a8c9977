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
      {"nothing", {}, "{}"},
      {"sections and keys",
       {{"ui", {{"lang", "en"}}}, {"net", {{"ip", "10.0.0.2"}, {"dhcp", "no"}}}},
       R"({"net":{"dhcp":"no","ip":"10.0.0.2"},"ui":{"lang":"en"}})"},
      {"capitals first", {{"a", {{"b", ""}, {"B", ""}}}, {"B", {}}}, R"({"B":{},"a":{"B":"","b":""}})"},
      {"empty names", {{"", {{"", ""}}}}, R"({"":{"":""}})"},
      {"characters with an escape",
       {{"s", {{"\"", "\\/\b\f\n\r\t\x1F\0\x7F"s}}}},
       "{\"s\":{\"\\\"\":\"\\\\/\\b\\f\\n\\r\\t\\u001f\\u0000\x7F\"}}"},
      {"UTF-8 as it is",
       {{"\xC3\xA9", {{"\xE2\x82\xAC", "\xF0\x9F\x98\x80"}}}},
       "{\"\xC3\xA9\":{\"\xE2\x82\xAC\":\"\xF0\x9F\x98\x80\"}}"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(PrintJson(row.sections), row.json);
  }
}

TEST(AppendJsonString, EscapesAByteAnywhereInAText) {
  const std::string escaped = "\"\\" + [] {
    std::string controls;
    for (char byte = 0; byte < 0x20; ++byte) {
      controls += byte;
    }
    return controls;
  }();
  for (std::size_t size = 1; size <= 25; ++size) {
    for (std::size_t place = 0; place != size; ++place) {
      for (char byte = 0; byte != 0x7F; ++byte) {
        std::string text(size, 'a');
        text[place] = byte;
        std::string json;
        AppendJsonString(json, text);
        ASSERT_EQ(json == '"' + text + '"', escaped.find(byte) == std::string::npos) << testing::PrintToString(text);
      }
    }
  }
}

TEST(PrintJson, SaysWhatIsNotUtf8) {
  const struct {
    const char* name;
    RegistrySections sections;
    std::string error;
  } rows[] = {
      {"a value",
       {{"a", {{"k", "v"}}}, {"net", {{"id", "ok"}, {"ip", "\xFF"}, {"z", "\xFF"}}}},
       "No JSON: value of key 'ip' in section 'net' is not UTF-8"},
      {"a key name", {{"net", {{"i\xC3", "\xFF"}}}}, "No JSON: name of key 'i%c3' in section 'net' is not UTF-8"},
      {"a section name", {{"n\x80", {{"\xFF", "\xFF"}}}}, "No JSON: name of section 'n%80' is not UTF-8"},
      {"unprintable names",
       {{"\n%\xC3\xA9\0"s, {{"\0\x7F"s, "\xC3"}}}},
       "No JSON: value of key '%00%7f' in section '%0a%25%c3%a9%00' is not UTF-8"},
      {"an encoded surrogate",
       {{"s", {{"k", "\xED\xA0\x80"}}}},
       "No JSON: value of key 'k' in section 's' is not UTF-8"},
      {"a character cut short",
       {{"s", {{"k", "abc\xE2\x82"}}}},
       "No JSON: value of key 'k' in section 's' is not UTF-8"},
      {"an overlong form", {{"s", {{"k", "\xC0\x80"}}}}, "No JSON: value of key 'k' in section 's' is not UTF-8"},
      {"empty names", {{"", {{"", "\x80"}}}}, "No JSON: value of key '' in section '' is not UTF-8"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    try {
      ADD_FAILURE() << PrintJson(row.sections);
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(e.what(), row.error);
    }
  }
}

}  // namespace
