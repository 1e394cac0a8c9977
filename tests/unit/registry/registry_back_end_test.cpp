#include "registry/registry_back_end.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/algorithm/string.hpp>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/registry/back_end_fixture.h"

namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

std::vector<std::string> Sections(BackEnd& back_end) {
  std::vector<std::string> names;
  back_end->SectionList([&](const std::string& name) { names.push_back(name); });
  return names;
}

// Returns the keys as the callback gets them, and expects the same from the other KeyList.
std::vector<std::pair<std::string, std::string>> Keys(BackEnd& back_end, const std::string& section) {
  std::vector<std::pair<std::string, std::string>> keys;
  back_end->KeyList(section, [&](const std::string& key, const std::string& value) { keys.emplace_back(key, value); });
  EXPECT_EQ(back_end.registry->KeyList(section), RegistrySection(keys.begin(), keys.end()));
  return keys;
}

void ExpectInvalidName(const std::string& name, const std::function<void()>& operation) {
  try {
    operation();
    ADD_FAILURE() << "no exception";
  } catch (const Registry::InvalidName& e) {
    EXPECT_EQ(e.Name(), name);
  }
}

TEST(RegistryBackEnd, SharesTheStoreAndReadsItOnce) {
  BackEnd back_end("[s]\nk=v\n");
  EXPECT_EQ(back_end.store.use_count(), 2);
  EXPECT_EQ(back_end->Read("s", "k"), "v");
  back_end->Write("s", "k", "w");
  back_end.registry.reset();
  EXPECT_EQ(back_end.store.use_count(), 1);
  EXPECT_EQ(back_end.store->Reads(), 1);
}

TEST(RegistryBackEnd, PassesOnExceptionsOfTheLoad) {
  struct UnreadableStore : test_support::RecordingStore {
    std::string Read() override {
      fault();
      return "";
    }
    std::function<void()> fault = [] { throw std::out_of_range("unreadable"); };
  };
  const auto store = std::make_shared<UnreadableStore>();
  EXPECT_THROW(RegistryBackEnd registry(store), std::out_of_range);
  EXPECT_EQ(store.use_count(), 1);
  store->fault = [] { throw 42; };
  EXPECT_THROW(RegistryBackEnd registry(store), int);
  EXPECT_THAT(store->Writes(), IsEmpty());
}

TEST(RegistryBackEnd, FoldsNamesInEveryOperation) {
  BackEnd back_end("[s]\nk=v\n[t]\nk=v\n");
  EXPECT_EQ(back_end->Read("S", "K"), "v");
  EXPECT_TRUE(back_end->KeyExists("S", "K"));
  EXPECT_TRUE(back_end->SectionExists("S"));
  EXPECT_THAT(Keys(back_end, "S"), ElementsAre(Pair("k", "v")));
  back_end->DeleteKey("S", "K");
  back_end->DeleteSection("T");
  back_end->Write("Net", "IP", "xY");
  EXPECT_EQ(back_end.FlushedText(), "[net]\nip=xY\n[s]\n");
}

TEST(RegistryBackEnd, AcceptsNamesOfAsciiAndFoldsTheirCapitals) {
  for (int byte = 0; byte < 0x100; ++byte) {
    SCOPED_TRACE(byte);
    BackEnd back_end;
    const std::string name = "Aa" + std::string(1, static_cast<char>(byte)) + "Zz";
    if (byte < 0x80) {
      back_end->Write(name, name, name);
      EXPECT_EQ(back_end->Read(name, name), name);
      EXPECT_THAT(Sections(back_end), ElementsAre(boost::to_lower_copy(name)));
    } else {
      ExpectInvalidName(name, [&] { back_end->Write(name, "k", "v"); });
    }
  }
  for (const std::string& name : {std::string(), std::string(5000, 'n')}) {
    BackEnd back_end;
    back_end->Write(name, name, "v");
    EXPECT_EQ(back_end->Read(name, name), "v");
  }
}

TEST(RegistryBackEnd, RefusesAnInvalidNameInEveryOperation) {
  const std::string bad = "B\x80"s;
  const struct {
    const char* name;
    std::function<void(RegistryBackEnd&)> operation;
  } rows[] = {
      {"Read, section", [&](auto& r) { r.Read(bad, "k"); }},
      {"Read, key", [&](auto& r) { r.Read("s", bad); }},
      {"Write, section", [&](auto& r) { r.Write(bad, "k", "v"); }},
      {"Write, key", [&](auto& r) { r.Write("s", bad, "v"); }},
      {"KeyExists, section", [&](auto& r) { r.KeyExists(bad, "k"); }},
      {"KeyExists, key", [&](auto& r) { r.KeyExists("s", bad); }},
      {"SectionExists", [&](auto& r) { r.SectionExists(bad); }},
      {"DeleteKey, section", [&](auto& r) { r.DeleteKey(bad, "k"); }},
      {"DeleteKey, key", [&](auto& r) { r.DeleteKey("s", bad); }},
      {"DeleteSection", [&](auto& r) { r.DeleteSection(bad); }},
      {"KeyList", [&](auto& r) { r.KeyList(bad, [](const std::string&, const std::string&) {}); }},
      {"KeyList without a callback", [&](auto& r) { r.KeyList(bad, Registry::KeyCallback()); }},
      {"KeyList as a map", [&](auto& r) { r.KeyList(bad); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end("[s]\nk=v\n");
    ExpectInvalidName(bad, [&] { row.operation(*back_end.registry); });
    back_end.ExpectUnchanged(R"({"s":{"k":"v"}})");
  }
}

TEST(RegistryBackEnd, DoesNotCheckTheKeyNameOfAMissingSection) {
  BackEnd back_end;
  EXPECT_EQ(back_end->Read("s", "\x80"), "");
  EXPECT_FALSE(back_end->KeyExists("s", "\x80"));
  EXPECT_NO_THROW(back_end->DeleteKey("s", "\x80"));
  back_end.ExpectUnchanged("{}");
}

TEST(RegistryBackEnd, KeepsTheNewSectionOfAWriteWithAnInvalidKey) {
  BackEnd back_end;
  EXPECT_THROW(back_end->Write("New", "\xC3\xA4", "v"), Registry::InvalidName);
  back_end.ExpectUnchanged(R"({"new":{}})");  // and saves it with the next change
  back_end->Write("s", "k", "v");
  EXPECT_EQ(back_end.FlushedText(), "[new]\n[s]\nk=v\n");
}

TEST(RegistryBackEnd, AcceptsAnyBytesInValues) {
  BackEnd back_end;
  std::string value;
  for (int byte = 0; byte < 256; ++byte) {
    value += static_cast<char>(byte);
  }
  back_end->Write("s", "k", value);
  EXPECT_EQ(back_end->Read("s", "k"), value);
}

TEST(RegistryBackEnd, ReadsAMissingKeyAndAnEmptyValueAsTheEmptyString) {
  BackEnd back_end("[s]\nk\n");
  EXPECT_EQ(back_end->Read("s", "k"), "");
  EXPECT_EQ(back_end->Read("s", "x"), "");
  EXPECT_EQ(back_end->Read("x", "k"), "");
  EXPECT_TRUE(back_end->KeyExists("s", "k"));
  EXPECT_FALSE(back_end->KeyExists("s", "x"));
  EXPECT_FALSE(back_end->KeyExists("x", "k"));
  EXPECT_FALSE(back_end->SectionExists("x"));
  EXPECT_THAT(Keys(back_end, "x"), IsEmpty());
  back_end.ExpectUnchanged(R"({"s":{"k":""}})");
}

TEST(RegistryBackEnd, SavesTheTextAfterAChange) {
  const struct {
    const char* name;
    std::function<void(Registry&)> change;
    std::vector<std::string> writes;
  } rows[] = {
      {"Write over a value", [](auto& r) { r.Write("s", "k", "w"); }, {"[s]\nk=w\nl=v\n[t]\nk=v\n[u]\n"}},
      {"Write of an empty value", [](auto& r) { r.Write("s", "k", ""); }, {"[s]\nk\nl=v\n[t]\nk=v\n[u]\n"}},
      {"Write of the same value", [](auto& r) { r.Write("s", "k", "v"); }, {"[s]\nk=v\nl=v\n[t]\nk=v\n[u]\n"}},
      {"DeleteKey", [](auto& r) { r.DeleteKey("s", "k"); }, {"[s]\nl=v\n[t]\nk=v\n[u]\n"}},
      {"DeleteKey of the last key", [](auto& r) { r.DeleteKey("t", "k"); }, {"[s]\nk=v\nl=v\n[t]\n[u]\n"}},
      {"DeleteKey of a missing key", [](auto& r) { r.DeleteKey("s", "x"); }, {}},
      {"DeleteKey of a missing section", [](auto& r) { r.DeleteKey("x", "k"); }, {}},
      {"DeleteSection", [](auto& r) { r.DeleteSection("s"); }, {"[t]\nk=v\n[u]\n"}},
      {"DeleteSection without keys", [](auto& r) { r.DeleteSection("u"); }, {"[s]\nk=v\nl=v\n[t]\nk=v\n"}},
      {"DeleteSection of a missing section", [](auto& r) { r.DeleteSection("x"); }, {}},
      {"DeleteAll", [](auto& r) { r.DeleteAll(); }, {""}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end("[s]\nk=v\nl=v\n[t]\nk=v\n[u]\n");
    row.change(*back_end.registry);
    back_end->Flush();
    EXPECT_EQ(back_end.store->Writes(), row.writes);
  }
}

TEST(RegistryBackEnd, SavesWhenDeleteAllDeletesNothing) {
  BackEnd back_end;
  back_end->DeleteAll();
  back_end->Flush();
  EXPECT_THAT(back_end.store->Writes(), ElementsAre(""));
}

TEST(RegistryBackEnd, ListsSectionsAndKeysInByteOrder) {
  BackEnd back_end("[b]\n[B]\n[ab]\n[]\n[a]\n[\x80]\n[~]\nb=1\nB=2\nab\n=3\na=4\n");
  EXPECT_THAT(Sections(back_end), ElementsAre("", "B", "a", "ab", "b", "~", "\x80"));
  EXPECT_THAT(Keys(back_end, "~"),
              ElementsAre(Pair("", "3"), Pair("B", "2"), Pair("a", "4"), Pair("ab", ""), Pair("b", "1")));
}

TEST(RegistryBackEnd, RefusesAnEmptyCallbackOnlyIfThereIsAnElement) {
  BackEnd back_end;
  EXPECT_NO_THROW(back_end->SectionList(Registry::SectionCallback()));
  EXPECT_NO_THROW(back_end->KeyList("s", Registry::KeyCallback()));
  back_end->Write("s", "k", "v");
  EXPECT_THROW(back_end->SectionList(Registry::SectionCallback()), boost::bad_function_call);
  EXPECT_THROW(back_end->KeyList("s", Registry::KeyCallback()), boost::bad_function_call);
  back_end->DeleteKey("s", "k");
  EXPECT_NO_THROW(back_end->KeyList("s", Registry::KeyCallback()));
}

TEST(RegistryBackEnd, StopsAListWhenTheCallbackThrows) {
  BackEnd back_end("[s]\nk=v\nl=v\n[t]\n");
  int calls = 0;
  EXPECT_THROW(back_end->SectionList([&](const std::string&) { throw ++calls; }), int);
  EXPECT_THROW(back_end->KeyList("s", [&](const std::string&, const std::string&) { throw ++calls; }), int);
  EXPECT_EQ(calls, 2);
}

TEST(RegistryBackEnd, KeepsNamesOfTheFileThatNoCallerCanReach) {
  BackEnd back_end("[Net]\nIP=1\n[net]\nIP=2\n");
  EXPECT_EQ(back_end->Read("Net", "IP"), "") << "the caller gets key ip of [net]";
  back_end->Write("Net", "IP", "3");
  EXPECT_EQ(back_end.FlushedText(), "[Net]\nIP=1\n[net]\nIP=2\nip=3\n");
  back_end->DeleteSection("Net");
  EXPECT_EQ(back_end.FlushedText(), "[Net]\nIP=1\n");
}

}  // namespace
