#include "registry/registry_back_end.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/registry/back_end_fixture.h"

namespace {

using namespace std::string_literals;
using test_support::RecordingStore;

std::vector<std::string> Sections(Registry& registry) {
  std::vector<std::string> names;
  registry.SectionList([&](const std::string& name) { names.push_back(name); });
  return names;
}

std::vector<std::pair<std::string, std::string>> Keys(Registry& registry, const std::string& section) {
  std::vector<std::pair<std::string, std::string>> keys;
  registry.KeyList(section, [&](const std::string& key, const std::string& value) { keys.emplace_back(key, value); });
  return keys;
}

std::string InvalidNameOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const Registry::InvalidName& e) {
    EXPECT_EQ(e.what(), "Invalid name: " + e.Name());
    return e.Name();
  }
  return "no exception";
}

class UnreadableStore : public PersistentStore {
public:
  explicit UnreadableStore(std::function<void()> fault) : m_fault(std::move(fault)) {}
  std::string Read() override {
    m_fault();
    return std::string();
  }
  void Write(const std::string&) override { ADD_FAILURE() << "written"; }
  std::uint32_t Capacity() override { return 100; }

private:
  const std::function<void()> m_fault;
};

TEST(RegistryBackEnd, ReadsTheStoreOnceWhenItIsMade) {
  BackEnd back_end("[s]\nk=v\n");
  EXPECT_EQ(back_end.store->Reads(), 1);
  EXPECT_EQ(back_end->Read("s", "k"), "v");
  back_end->Write("s", "k", "w");
  back_end.registry.reset();
  EXPECT_EQ(back_end.store->Reads(), 1);
}

TEST(RegistryBackEnd, SharesTheStore) {
  const auto store = std::make_shared<RecordingStore>();
  {
    const RegistryBackEnd registry(store);
    EXPECT_EQ(store.use_count(), 2);
  }
  EXPECT_EQ(store.use_count(), 1);
}

TEST(RegistryBackEnd, PassesOnWhatTheLoadThrows) {
  const auto store = std::make_shared<UnreadableStore>([] { throw std::out_of_range("unreadable"); });
  try {
    const RegistryBackEnd registry(store);
    ADD_FAILURE() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "unreadable");
  }
  EXPECT_EQ(store.use_count(), 1);
  EXPECT_THROW(RegistryBackEnd(std::make_shared<UnreadableStore>([] { throw 42; })), int);
}

TEST(RegistryBackEnd, FoldsNamesAndKeepsTheCaseOfValues) {
  BackEnd back_end;
  back_end->Write("Net", "IP", "xY");
  EXPECT_EQ(back_end->Read("net", "ip"), "xY");
  EXPECT_EQ(back_end->Read("NET", "Ip"), "xY");
  EXPECT_EQ(back_end.FlushedText(), "[net]\nip=xY\n");
}

TEST(RegistryBackEnd, FoldsNamesInEveryOperation) {
  BackEnd back_end("[s]\nk=v\n[t]\nk=v\n");
  EXPECT_EQ(back_end->Read("S", "K"), "v");
  EXPECT_TRUE(back_end->KeyExists("S", "K"));
  EXPECT_TRUE(back_end->SectionExists("S"));
  EXPECT_EQ(Keys(*back_end.registry, "S").size(), 1U);
  EXPECT_EQ(back_end.registry->KeyList("S").size(), 1U);
  back_end->DeleteKey("S", "K");
  EXPECT_FALSE(back_end->KeyExists("s", "k"));
  back_end->DeleteSection("T");
  EXPECT_FALSE(back_end->SectionExists("t"));
}

TEST(RegistryBackEnd, FoldsNothingButAsciiCapitals) {
  BackEnd back_end;
  back_end->Write("@AZ[`az{", "k", "v");
  EXPECT_EQ(Sections(*back_end.registry), std::vector<std::string>{"@az[`az{"});
}

TEST(RegistryBackEnd, AcceptsEveryAsciiByteInNames) {
  for (int byte = 0; byte < 0x80; ++byte) {
    SCOPED_TRACE(byte);
    BackEnd back_end;
    const std::string name(1, static_cast<char>(byte));
    back_end->Write(name, name, name);
    EXPECT_EQ(back_end->Read(name, name), name);
    EXPECT_TRUE(back_end->SectionExists(name));
  }
}

TEST(RegistryBackEnd, RefusesEveryByteAboveAsciiInNames) {
  BackEnd back_end("[s]\n");
  for (int byte = 0x80; byte < 0x100; ++byte) {
    const std::string name = "Aa" + std::string(1, static_cast<char>(byte)) + "Zz";
    EXPECT_EQ(InvalidNameOf([&] { back_end->Read("s", name); }), name) << byte;
  }
}

TEST(RegistryBackEnd, AcceptsEmptyAndLongNames) {
  BackEnd back_end;
  const std::string name(5000, 'n');
  back_end->Write("", "", "v");
  back_end->Write(name, name, "w");
  EXPECT_EQ(back_end->Read("", ""), "v");
  EXPECT_EQ(back_end->Read(name, name), "w");
}

TEST(RegistryBackEnd, RefusesABadSectionNameInEveryOperation) {
  const std::string bad = "S\xC3\xBC"s;
  const struct {
    const char* name;
    std::function<void(RegistryBackEnd&)> operation;
  } rows[] = {
      {"Read", [&](RegistryBackEnd& r) { r.Read(bad, "k"); }},
      {"Write", [&](RegistryBackEnd& r) { r.Write(bad, "k", "v"); }},
      {"KeyExists", [&](RegistryBackEnd& r) { r.KeyExists(bad, "k"); }},
      {"SectionExists", [&](RegistryBackEnd& r) { r.SectionExists(bad); }},
      {"DeleteKey", [&](RegistryBackEnd& r) { r.DeleteKey(bad, "k"); }},
      {"DeleteSection", [&](RegistryBackEnd& r) { r.DeleteSection(bad); }},
      {"KeyList", [&](RegistryBackEnd& r) { r.KeyList(bad, [](const std::string&, const std::string&) {}); }},
      {"KeyList without a callback", [&](RegistryBackEnd& r) { r.KeyList(bad, Registry::KeyCallback()); }},
      {"KeyList as a copy", [&](RegistryBackEnd& r) { r.KeyList(bad); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end("[s]\nk=v\n");
    EXPECT_EQ(InvalidNameOf([&] { row.operation(*back_end.registry); }), bad);
    EXPECT_EQ(back_end->ReadAllJson(), R"({"s":{"k":"v"}})");
    back_end->Flush();
    EXPECT_TRUE(back_end.store->Writes().empty());
  }
}

TEST(RegistryBackEnd, RefusesABadKeyNameInAnExistingSection) {
  const std::string bad = "K\x80"s;
  const struct {
    const char* name;
    std::function<void(Registry&)> operation;
  } rows[] = {
      {"Read", [&](Registry& r) { r.Read("s", bad); }},
      {"Write", [&](Registry& r) { r.Write("s", bad, "v"); }},
      {"KeyExists", [&](Registry& r) { r.KeyExists("s", bad); }},
      {"DeleteKey", [&](Registry& r) { r.DeleteKey("s", bad); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end("[s]\nk=v\n");
    EXPECT_EQ(InvalidNameOf([&] { row.operation(*back_end.registry); }), bad);
    EXPECT_EQ(back_end->ReadAllJson(), R"({"s":{"k":"v"}})");
    back_end->Flush();
    EXPECT_TRUE(back_end.store->Writes().empty());
  }
}

TEST(RegistryBackEnd, DoesNotCheckTheKeyNameOfAMissingSection) {
  BackEnd back_end;
  EXPECT_EQ(back_end->Read("s", "\x80"), "");
  EXPECT_FALSE(back_end->KeyExists("s", "\x80"));
  EXPECT_NO_THROW(back_end->DeleteKey("s", "\x80"));
  EXPECT_FALSE(back_end->SectionExists("s"));
}

TEST(RegistryBackEnd, LeavesAnEmptySectionBehindWhenTheKeyOfAWriteIsBad) {
  BackEnd back_end;
  EXPECT_THROW(back_end->Write("New", "\xC3\xA4", "v"), Registry::InvalidName);
  EXPECT_TRUE(back_end->SectionExists("new"));
  EXPECT_EQ(back_end.FlushedText(), "") << "not saved yet";
  back_end->Write("s", "k", "v");
  EXPECT_EQ(back_end.FlushedText(), "[new]\n[s]\nk=v\n") << "saved with the next change";
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

TEST(RegistryBackEnd, OverwritesAValue) {
  BackEnd back_end("[s]\nk=v\nl=v\n");
  back_end->Write("s", "k", "w");
  EXPECT_EQ(back_end.FlushedText(), "[s]\nk=w\nl=v\n");
}

TEST(RegistryBackEnd, ReadsNothingFromWhatIsMissing) {
  BackEnd back_end("[s]\nk=v\n");
  EXPECT_EQ(back_end->Read("s", "x"), "");
  EXPECT_EQ(back_end->Read("x", "k"), "");
  EXPECT_FALSE(back_end->KeyExists("s", "x"));
  EXPECT_FALSE(back_end->KeyExists("x", "k"));
  EXPECT_FALSE(back_end->SectionExists("x"));
  EXPECT_EQ(back_end->ReadAllJson(), R"({"s":{"k":"v"}})") << "reading makes nothing";
}

TEST(RegistryBackEnd, TellsAnEmptyValueFromAMissingKey) {
  BackEnd back_end;
  back_end->Write("s", "k", "");
  EXPECT_TRUE(back_end->KeyExists("s", "k"));
  EXPECT_EQ(back_end->Read("s", "k"), "");
  EXPECT_EQ(back_end.FlushedText(), "[s]\nk\n");
}

TEST(RegistryBackEnd, KeepsTheSectionWhenItsLastKeyGoes) {
  BackEnd back_end("[s]\nk=v\n");
  back_end->DeleteKey("s", "k");
  EXPECT_FALSE(back_end->KeyExists("s", "k"));
  EXPECT_TRUE(back_end->SectionExists("s"));
  EXPECT_EQ(back_end.FlushedText(), "[s]\n");
}

TEST(RegistryBackEnd, DeletesASectionWithItsKeys) {
  BackEnd back_end("[s]\nk=v\nl=v\n[t]\nk=v\n[u]\n");
  back_end->DeleteSection("s");
  back_end->DeleteSection("u");
  EXPECT_EQ(back_end.FlushedText(), "[t]\nk=v\n");
}

TEST(RegistryBackEnd, DeletesAll) {
  BackEnd back_end("[s]\nk=v\n[t]\n");
  back_end->DeleteAll();
  EXPECT_EQ(back_end->ReadAllJson(), "{}");
  EXPECT_EQ(back_end.FlushedText(), "");
}

TEST(RegistryBackEnd, SavesNothingWhenNothingIsDeleted) {
  BackEnd back_end("[s]\nk=v\n");
  back_end->DeleteKey("s", "x");
  back_end->DeleteKey("x", "k");
  back_end->DeleteSection("x");
  back_end->Flush();
  EXPECT_TRUE(back_end.store->Writes().empty());
}

TEST(RegistryBackEnd, SavesWhenAllOfNothingIsDeleted) {
  BackEnd back_end;
  back_end->DeleteAll();
  back_end->Flush();
  EXPECT_EQ(back_end.store->Writes(), std::vector<std::string>{""});
}

TEST(RegistryBackEnd, ListsSectionsInByteOrder) {
  BackEnd back_end("[b]\n[B]\n[ab]\n[]\n[a]\n[\x80]\n[~]\n");
  EXPECT_EQ(Sections(*back_end.registry), (std::vector<std::string>{"", "B", "a", "ab", "b", "~", "\x80"}));
}

TEST(RegistryBackEnd, ListsKeysInByteOrderWithTheirValues) {
  BackEnd back_end("[s]\nb=1\nB=2\nab\n=3\na=4\n[t]\nc=5\n");
  const std::vector<std::pair<std::string, std::string>> keys{
      {"", "3"}, {"B", "2"}, {"a", "4"}, {"ab", ""}, {"b", "1"}};
  EXPECT_EQ(Keys(*back_end.registry, "s"), keys);
  EXPECT_EQ(back_end.registry->KeyList("s"), RegistrySection(keys.begin(), keys.end()));
}

TEST(RegistryBackEnd, ListsNoKeysOfAMissingSection) {
  BackEnd back_end("[s]\n");
  EXPECT_TRUE(Keys(*back_end.registry, "x").empty());
  EXPECT_TRUE(back_end.registry->KeyList("x").empty());
  EXPECT_FALSE(back_end->SectionExists("x"));
}

TEST(RegistryBackEnd, FailsToCallAnEmptyCallbackOnceThereIsSomethingToList) {
  BackEnd back_end;
  EXPECT_NO_THROW(back_end->SectionList(Registry::SectionCallback()));
  EXPECT_NO_THROW(back_end->KeyList("s", Registry::KeyCallback()));
  back_end->Write("s", "k", "v");
  EXPECT_THROW(back_end->SectionList(Registry::SectionCallback()), boost::bad_function_call);
  EXPECT_THROW(back_end->KeyList("s", Registry::KeyCallback()), boost::bad_function_call);
  back_end->DeleteKey("s", "k");
  EXPECT_THROW(back_end->SectionList(Registry::SectionCallback()), boost::bad_function_call);
  EXPECT_NO_THROW(back_end->KeyList("s", Registry::KeyCallback()));
}

TEST(RegistryBackEnd, StopsListingWhenTheCallbackThrows) {
  BackEnd back_end("[s]\nk=v\nl=v\n[t]\n");
  int calls = 0;
  EXPECT_THROW(back_end->SectionList([&](const std::string&) {
    ++calls;
    throw std::runtime_error("enough");
  }),
               std::runtime_error);
  EXPECT_THROW(back_end->KeyList("s",
                                 [&](const std::string&, const std::string&) {
                                   ++calls;
                                   throw std::runtime_error("enough");
                                 }),
               std::runtime_error);
  EXPECT_EQ(calls, 2);
}

TEST(RegistryBackEnd, KeepsNamesOfTheFileThatNoCallerCanReach) {
  BackEnd back_end("[Net]\nIP=1\n[net]\nIP=2\n");
  EXPECT_EQ(back_end->Read("Net", "IP"), "") << "a caller means [net], key ip";
  back_end->Write("Net", "IP", "3");
  EXPECT_EQ(back_end.FlushedText(), "[Net]\nIP=1\n[net]\nIP=2\nip=3\n");
  back_end->DeleteSection("Net");
  EXPECT_EQ(back_end.FlushedText(), "[Net]\nIP=1\n");
}

}  // namespace
