// Export, and the imports that are accepted.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/unit/registry/back_end_fixture.h"

namespace {

using namespace std::string_literals;

TEST(ReadAllJson, PrintsAnEmptyRegistry) { EXPECT_EQ(BackEnd()->ReadAllJson(), "{}"); }

TEST(ReadAllJson, PrintsOneLineInByteOrderWhateverTheOrderOfWriting) {
  BackEnd back_end;
  back_end->Write("ui", "lang", "en");
  back_end->Write("net", "ip", "10.0.0.2");
  back_end->Write("net", "dhcp", "no");
  EXPECT_EQ(back_end->ReadAllJson(), R"({"net":{"dhcp":"no","ip":"10.0.0.2"},"ui":{"lang":"en"}})");
}

TEST(ReadAllJson, PrintsCapitalsOfTheFileFirst) {
  EXPECT_EQ(BackEnd("[a]\nb=1\nB=2\n[B]\n")->ReadAllJson(), R"({"B":{},"a":{"B":"2","b":"1"}})");
}

TEST(ReadAllJson, PrintsASectionWithoutKeysAsAnEmptyObject) {
  EXPECT_EQ(BackEnd("[s]\n")->ReadAllJson(), R"({"s":{}})");
}

TEST(ReadAllJson, RefusesWhatIsNotUtf8AndKeepsIt) {
  const struct {
    const char* name;
    std::string text;
    std::string error;
  } rows[] = {
      {"a value", "[net]\nip=\xFF\n", "No JSON: value of key 'ip' in section 'net' is not UTF-8"},
      {"a key name", "[net]\ni\xC3=v\n", "No JSON: name of key 'i%c3' in section 'net' is not UTF-8"},
      {"a section name", "[n\x80]\nip=v\n", "No JSON: name of section 'n%80' is not UTF-8"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end(row.text);
    try {
      ADD_FAILURE() << back_end->ReadAllJson();
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(e.what(), row.error);
    }
    back_end->Write("z", "k", "v");
    EXPECT_EQ(back_end.FlushedText(), row.text + "[z]\nk=v\n");
    back_end->WriteJson(R"({"z":null})");
    EXPECT_EQ(back_end.store->Text(), row.text);
  }
}

TEST(ReadAllJson, KeepsTheErrorShortForLongNames) {
  BackEnd back_end("[" + std::string(5000, '\x80') + "]\nk=\xFF\n");
  try {
    ADD_FAILURE() << back_end->ReadAllJson();
  } catch (const std::runtime_error& e) {
    EXPECT_LE(std::string(e.what()).size(), 4000U);
  }
}

TEST(WriteJson, MergesIntoTheRegistry) {
  const std::string text = "[net]\ndhcp=no\nip=1\n[ui]\nlang=en\n";
  const struct {
    const char* name;
    std::string json;
    std::string text;
  } rows[] = {
      {"nothing", "{}", "[net]\ndhcp=no\nip=1\n[ui]\nlang=en\n"},
      {"a new section", R"({"a":{"k":"v"}})", "[a]\nk=v\n[net]\ndhcp=no\nip=1\n[ui]\nlang=en\n"},
      {"a new key", R"({"ui":{"k":"v"}})", "[net]\ndhcp=no\nip=1\n[ui]\nk=v\nlang=en\n"},
      {"a new value", R"({"net":{"ip":"2"}})", "[net]\ndhcp=no\nip=2\n[ui]\nlang=en\n"},
      {"an empty value", R"({"net":{"ip":""}})", "[net]\ndhcp=no\nip\n[ui]\nlang=en\n"},
      {"a value that looks like a number", R"({"net":{"ip":"1"}})", "[net]\ndhcp=no\nip=1\n[ui]\nlang=en\n"},
      {"null deletes a section with its keys", R"({"net":null})", "[ui]\nlang=en\n"},
      {"null deletes a key alone", R"({"net":{"ip":null}})", "[net]\ndhcp=no\n[ui]\nlang=en\n"},
      {"null deletes the last key and the section stays", R"({"ui":{"lang":null}})", "[net]\ndhcp=no\nip=1\n[ui]\n"},
      {"null for a missing section", R"({"x":null})", "[net]\ndhcp=no\nip=1\n[ui]\nlang=en\n"},
      {"null for a missing key", R"({"ui":{"x":null}})", "[net]\ndhcp=no\nip=1\n[ui]\nlang=en\n"},
      {"null for a key of a missing section", R"({"x":{"k":null}})", "[net]\ndhcp=no\nip=1\n[ui]\nlang=en\n"},
      {"null and a value in a missing section", R"({"x":{"k":null,"l":"v"}})",
       "[net]\ndhcp=no\nip=1\n[ui]\nlang=en\n[x]\nl=v\n"},
      {"an empty object does not empty a section", R"({"net":{}})", "[net]\ndhcp=no\nip=1\n[ui]\nlang=en\n"},
      {"an empty object does not make a section", R"({"x":{}})", "[net]\ndhcp=no\nip=1\n[ui]\nlang=en\n"},
      {"all at once", R"({"ui":null,"net":{"ip":null,"mask":"m"},"a":{"k":"v"}})",
       "[a]\nk=v\n[net]\ndhcp=no\nmask=m\n"},
      {"names are folded", R"({"NET":{"IP":"X"},"UI":null})", "[net]\ndhcp=no\nip=X\n"},
      {"the later section wins, in byte order", R"({"net":{"ip":"low"},"Net":{"ip":"cap"}})",
       "[net]\ndhcp=no\nip=low\n[ui]\nlang=en\n"},
      {"sections that differ in case are joined", R"({"NET":{"a":"1"},"net":{"b":"2"}})",
       "[net]\na=1\nb=2\ndhcp=no\nip=1\n[ui]\nlang=en\n"},
      {"a section is deleted behind its change", R"({"net":null,"Net":{"k":"v"}})", "[ui]\nlang=en\n"},
      {"a section is made anew behind its deletion", R"({"Net":null,"net":{"k":"v"}})", "[net]\nk=v\n[ui]\nlang=en\n"},
      {"the later key wins, in byte order", R"({"net":{"ip":"low","IP":"cap","Ip":"mixed"}})",
       "[net]\ndhcp=no\nip=low\n[ui]\nlang=en\n"},
      {"a key is deleted behind its change", R"({"net":{"ip":null,"IP":"cap"}})", "[net]\ndhcp=no\n[ui]\nlang=en\n"},
      {"a key is made anew behind its deletion", R"({"net":{"ip":"low","IP":null}})",
       "[net]\ndhcp=no\nip=low\n[ui]\nlang=en\n"},
      {"a section left empty by names that differ in case", R"({"x":{"K":"v","k":null}})",
       "[net]\ndhcp=no\nip=1\n[ui]\nlang=en\n[x]\n"},
      {"the last of equal names", R"({"net":5,"net":{"ip":7,"ip":"2"}})", "[net]\ndhcp=no\nip=2\n[ui]\nlang=en\n"},
      {"a bad name in a section that does not count", "{\"net\":{\"\xC3\xA9\":\"v\"},\"net\":{\"ip\":\"2\"}}",
       "[net]\ndhcp=no\nip=2\n[ui]\nlang=en\n"},
      {"a byte order mark and whitespace", "\xEF\xBB\xBF {\"ui\" : null}\n", "[net]\ndhcp=no\nip=1\n"},
      {"empty names", R"({"":{"":"v"}})", "[]\n=v\n[net]\ndhcp=no\nip=1\n[ui]\nlang=en\n"},
      {"NUL in names and values", R"({"a\u0000b":{"\u0000":"v\u0000w"}})",
       "[a\0b]\n\0=v\0w\n[net]\ndhcp=no\nip=1\n[ui]\nlang=en\n"s},
      {"values beyond ASCII", "{\"net\":{\"ip\":\"\xC3\xA9\\u20ac\"}}",
       "[net]\ndhcp=no\nip=\xC3\xA9\xE2\x82\xAC\n[ui]\nlang=en\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end(text);
    back_end->WriteJson(row.json);
    EXPECT_EQ(back_end.store->Writes(), std::vector<std::string>{row.text}) << "written and flushed, once";
  }
}

// The size counts when all is merged, not on the way there.
TEST(WriteJson, MergesLargeValuesThatDoNotStay) {
  const std::string large(20000, 'x');
  const struct {
    const char* name;
    std::string json;
    std::string text;
  } rows[] = {
      {"overwritten in another section", R"({"S":{"k":")" + large + R"("},"s":{"k":"v"}})", "[s]\nk=v\n"},
      {"overwritten in the same section", R"({"s":{"K":")" + large + R"(","k":"v"}})", "[s]\nk=v\n"},
      {"deleted with the section", R"({"S":{"k":")" + large + R"("},"s":null})", ""},
      {"deleted by another section", R"({"S":{"k":")" + large + R"("},"s":{"k":null}})", "[s]\n"},
      {"deleted in the same section", R"({"s":{"K":")" + large + R"(","k":null}})", "[s]\n"},
      {"one of equal names", R"({"s":{"k":")" + large + R"(","k":"v"}})", "[s]\nk=v\n"},
      {"before other sections", R"({"S":{"k":")" + large + R"("},"T":{"k":"w"},"s":{"k":"v"}})",
       "[s]\nk=v\n[t]\nk=w\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end("[s]\nk=old\n");
    back_end->WriteJson(row.json);
    EXPECT_EQ(back_end.store->Writes(), std::vector<std::string>{row.text});
  }
}

TEST(WriteJson, ShowsTheMergedRegistryAfterwards) {
  BackEnd back_end("[net]\nip=1\n");
  back_end->WriteJson(R"({"ui":{"lang":"en"},"net":{"dhcp":"no"}})");
  EXPECT_EQ(back_end->ReadAllJson(), R"({"net":{"dhcp":"no","ip":"1"},"ui":{"lang":"en"}})");
  EXPECT_EQ(back_end->Read("net", "dhcp"), "no");
}

TEST(WriteJson, ShowsNulCharactersOfNamesAndValues) {
  BackEnd back_end;
  back_end->WriteJson(R"({"A\u0000b":{"\u0000":"v\u0000w"}})");
  EXPECT_EQ(back_end->Read("a\0b"s, "\0"s), "v\0w"s);
  EXPECT_EQ(back_end->ReadAllJson(), R"({"a\u0000b":{"\u0000":"v\u0000w"}})");
}

TEST(WriteJson, TakesBackWhatReadAllJsonPrints) {
  BackEnd source("[s]\na=\"\\\x01\xC3\xA9\n[t]\n=v\nb==%25%0d%0a\n");
  BackEnd target("[s]\na=other\n");
  target->WriteJson(source->ReadAllJson());
  EXPECT_EQ(target->ReadAllJson(), source->ReadAllJson());
  EXPECT_EQ(target.store->Text(), source.store->Text());
}

TEST(WriteJson, WritesAndFlushesEvenNothing) {
  BackEnd back_end("[b]\r\nk=\n[a]\n");
  back_end->WriteJson("{}");
  back_end->WriteJson("{}");
  EXPECT_EQ(back_end.store->Writes(), (std::vector<std::string>{"[a]\n[b]\nk\n", "[a]\n[b]\nk\n"}));
  BackEnd empty;
  empty->WriteJson("{}");
  EXPECT_EQ(empty.store->Writes(), std::vector<std::string>{""});
}

TEST(WriteJson, FlushesWhatWasPendingBefore) {
  BackEnd back_end;
  back_end->Write("s", "k", "v");
  back_end->WriteJson(R"({"t":{"k":"v"}})");
  EXPECT_EQ(back_end.store->Writes(), std::vector<std::string>{"[s]\nk=v\n[t]\nk=v\n"});
}

TEST(WriteJson, SavesAStraySectionOfARefusedWrite) {
  BackEnd back_end;
  EXPECT_THROW(back_end->Write("stray", "\x80", "v"), Registry::InvalidName);
  back_end->WriteJson("{}");
  EXPECT_EQ(back_end.store->Text(), "[stray]\n");
}

TEST(WriteJsonStop, ChangesNothingWheneverItComes) {
  std::string keys;
  for (int i = 0; i < 20000; ++i) {
    keys += "\"" + std::to_string(i * 7919 % 20000) + "\":null,";
  }
  const struct {
    const char* name;
    std::string json;
    std::size_t fewest_questions;
  } rows[] = {
      {"one string", R"({"t":{"k":")" + std::string(1000000, 'x') + R"("},"T":{"k":"w"},"t":{"k":"v"}})",
       1000000 / 65536},
      {"many keys", R"({"s":{)" + keys + R"("k":"w"}})", 8},
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

}  // namespace
