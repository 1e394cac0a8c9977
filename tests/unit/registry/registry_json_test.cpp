// ReadAllJson, and calls of WriteJson that are accepted or stopped.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/algorithm/string.hpp>
#include <memory>
#include <stdexcept>
#include <string>

#include "tests/unit/registry/back_end_fixture.h"

namespace {

using namespace std::string_literals;
using testing::ElementsAre;

// json_printer_test.cpp has the other cases.
TEST(ReadAllJson, RefusesNamesAndValuesThatAreNotUtf8AndKeepsThem) {
  const std::string text = "[net]\nip=\xFF\n";
  BackEnd back_end(text);
  EXPECT_THROW(back_end->ReadAllJson(), std::runtime_error);
  back_end->Write("z", "k", "v");
  EXPECT_EQ(back_end.FlushedText(), text + "[z]\nk=v\n");
  back_end->WriteJson(R"({"z":null})");
  EXPECT_EQ(back_end.store->Text(), text);
}

TEST(WriteJson, MergesIntoTheRegistryAndWritesOnce) {
  const std::string n = "[n]\na=1\nb=2\n";
  const std::string u = "[u]\nc=3\n";
  const struct {
    const char* name;
    std::string json;
    std::string text;
  } rows[] = {
      {"an empty object", "{}", n + u},
      {"a new section", R"({"a":{"k":"v"}})", "[a]\nk=v\n[n]\na=1\nb=2\n" + u},
      {"a new key", R"({"u":{"b":"v"}})", n + "[u]\nb=v\nc=3\n"},
      {"a new value", R"({"n":{"b":"v"}})", "[n]\na=1\nb=v\n" + u},
      {"an empty value", R"({"n":{"b":""}})", "[n]\na=1\nb\n" + u},
      {"the same value", R"({"n":{"b":"2"}})", n + u},
      {"null deletes a section with its keys", R"({"n":null})", u},
      {"null deletes one key", R"({"n":{"b":null}})", "[n]\na=1\n" + u},
      {"null deletes the last key but not the section", R"({"u":{"c":null}})", n + "[u]\n"},
      {"null for a missing section", R"({"x":null})", n + u},
      {"null for a missing key", R"({"u":{"x":null}})", n + u},
      {"null for a key of a missing section", R"({"x":{"k":null}})", n + u},
      {"null and a value in a missing section", R"({"x":{"k":null,"l":"v"}})", n + u + "[x]\nl=v\n"},
      {"an empty object does not empty a section", R"({"n":{}})", n + u},
      {"an empty object does not create a section", R"({"x":{}})", n + u},
      {"several changes", R"({"u":null,"n":{"b":null,"m":"w"},"a":{"k":"v"}})", "[a]\nk=v\n[n]\na=1\nm=w\n"},
      {"names are folded", R"({"N":{"B":"X"},"U":null})", "[n]\na=1\nb=X\n"},
      {"the later section in byte order wins", R"({"n":{"b":"small"},"N":{"b":"capital"}})", "[n]\na=1\nb=small\n" + u},
      {"sections that differ in case are joined", R"({"x":{"a":"2"},"X":{"b":"1"}})", n + u + "[x]\na=2\nb=1\n"},
      {"only the sections after a deletion are joined", R"({"XX":{"a":"1"},"Xx":null,"xx":{"b":"2"}})",
       n + u + "[xx]\nb=2\n"},
      {"a section is deleted after its change", R"({"n":null,"N":{"k":"v"}})", u},
      {"a section is created after its deletion", R"({"N":null,"n":{"k":"v"}})", "[n]\nk=v\n" + u},
      {"the later key in byte order wins", R"({"n":{"bb":"small","BB":"capital","Bb":"mixed"}})", n + "bb=small\n" + u},
      {"a key is deleted after its change", R"({"n":{"b":null,"B":"v"}})", "[n]\na=1\n" + u},
      {"a key is created after its deletion", R"({"n":{"b":"v","B":null}})", "[n]\na=1\nb=v\n" + u},
      {"a new section loses its only key", R"({"x":{"K":"v","k":null}})", n + u + "[x]\n"},
      {"the last of equal names", R"({"n":5,"n":{"b":7,"b":"v"}})", "[n]\na=1\nb=v\n" + u},
      {"an invalid name in a section that a later one replaces", "{\"n\":{\"\xC3\xA9\":\"v\"},\"n\":{\"b\":\"v\"}}",
       "[n]\na=1\nb=v\n" + u},
      {"a byte order mark and whitespace", "\xEF\xBB\xBF {\"u\" : null}\n", n},
      {"empty names", R"({"":{"":"v"}})", "[]\n=v\n[n]\na=1\nb=2\n" + u},
      {"NUL in names and values", R"({"N\u0000":{"\u0000":"v\u0000w"}})", n + "[n\0]\n\0=v\0w\n"s + u},
      {"a value above ASCII", "{\"n\":{\"b\":\"\xC3\xA9\\u20ac\"}}", "[n]\na=1\nb=\xC3\xA9\xE2\x82\xAC\n" + u},
      // Only the size after the whole merge counts:
      {"a large value that a later section overwrites", R"({"N":{"b":"LARGE"},"n":{"b":"v"}})", "[n]\na=1\nb=v\n" + u},
      {"a large value that a later key overwrites", R"({"n":{"B":"LARGE","b":"v"}})", "[n]\na=1\nb=v\n" + u},
      {"a large value in a section that is deleted", R"({"N":{"b":"LARGE"},"n":null})", u},
      {"a large value that a later section deletes", R"({"N":{"b":"LARGE"},"n":{"b":null}})", "[n]\na=1\n" + u},
      {"a large value that a later key deletes", R"({"n":{"B":"LARGE","b":null}})", "[n]\na=1\n" + u},
      {"a large value of the first of equal names", R"({"n":{"b":"LARGE","b":"v"}})", "[n]\na=1\nb=v\n" + u},
      {"a large value before other sections", R"({"N":{"b":"LARGE"},"T":{"k":"w"},"n":{"b":"v"}})",
       "[n]\na=1\nb=v\n[t]\nk=w\n" + u},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end(n + u);
    back_end->WriteJson(boost::replace_all_copy(row.json, "LARGE", std::string(20000, 'x')));
    EXPECT_THAT(back_end.store->Writes(), ElementsAre(row.text));
    EXPECT_EQ(back_end->ReadAllJson(), BackEnd(row.text)->ReadAllJson()) << "the registry is that of its text";
  }
}

TEST(WriteJson, AcceptsTheTextOfReadAllJson) {
  BackEnd source("[s]\na=\"\\\x01\xC3\xA9\n[t]\n=v\nb==%25%0d%0a\n");
  BackEnd target("[s]\na=other\n");
  target->WriteJson(source->ReadAllJson());
  EXPECT_EQ(target->ReadAllJson(), source->ReadAllJson());
  EXPECT_EQ(target.store->Text(), source.store->Text());
}

TEST(WriteJson, WritesAndFlushesAnUnchangedRegistry) {
  BackEnd back_end("[b]\r\nk=\n[a]\n");
  back_end->WriteJson("{}");
  back_end->WriteJson("{}");
  EXPECT_THAT(back_end.store->Writes(), ElementsAre("[a]\n[b]\nk\n", "[a]\n[b]\nk\n"));
  BackEnd empty;
  empty->WriteJson("{}");
  EXPECT_THAT(empty.store->Writes(), ElementsAre(""));
}

TEST(WriteJson, FlushesEarlierChangesAndUnsavedSections) {
  BackEnd back_end;
  back_end->Write("s", "k", "v");
  EXPECT_THROW(back_end->Write("unsaved", "\x80", "v"), Registry::InvalidName);
  back_end->WriteJson(R"({"t":{"k":"v"}})");
  EXPECT_THAT(back_end.store->Writes(), ElementsAre("[s]\nk=v\n[t]\nk=v\n[unsaved]\n"));
}

// Returns keys that are null, in no order.
std::string ManyKeys(int count) {
  std::string keys;
  for (int i = 0; i < count; ++i) {
    keys += "\"" + std::to_string(i * 7919 % count) + "\":null,";
  }
  return keys;
}

TEST(WriteJsonStop, ChangesNothingAtAnyTime) {
  const struct {
    const char* name;
    std::string json;
    std::size_t fewest_questions;
  } rows[] = {
      {"one string", R"({"t":{"k":")" + std::string(1000000, 'x') + R"("},"T":{"k":"w"},"t":{"k":"v"}})",
       1000000 / 65536},
      {"many keys", R"({"s":{)" + ManyKeys(20000) + R"("k":"w"}})", 8},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::size_t asked = 0;
    std::size_t stop_at = 0;
    const auto store = std::make_shared<test_support::RecordingStore>("[s]\nk=v\n");
    RegistryBackEnd back_end(store, [&] { return ++asked == stop_at; });
    back_end.Write("s", "pending", "1");
    do {
      asked = 0;
      ++stop_at;
      try {
        back_end.WriteJson(row.json);
      } catch (const WorkStopped&) {
        EXPECT_EQ(asked, stop_at) << "asked again after the answer";
        EXPECT_EQ(back_end.ReadAllJson(), R"({"s":{"k":"v","pending":"1"}})");
        EXPECT_TRUE(store->Writes().empty());
      }
    } while (asked == stop_at);
    EXPECT_GE(asked, row.fewest_questions);
    EXPECT_EQ(store->Writes().size(), 1U) << "never stopped, it is accepted";
  }
}

TEST(WriteJsonStop, EndsTheSearchForAnInvalidKey) {
  const std::string json = R"({"s":{)" + ManyKeys(65536) + R"("z":5}})";
  std::size_t asked = 0;
  JsonDocument::Parse(json, StopCheck([&] { return ++asked == 0; }));
  std::size_t left = asked;
  RegistryBackEnd back_end(std::make_shared<test_support::RecordingStore>(), [&] { return left-- == 0; });
  EXPECT_THROW(back_end.WriteJson(json), WorkStopped);
}

}  // namespace
