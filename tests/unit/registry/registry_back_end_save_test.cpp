// When the back end saves, what it refuses for lack of room, and how it goes back to the last accepted text.
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "lib/platform/errno_exception.h"
#include "tests/unit/registry/back_end_fixture.h"

namespace {

using test_support::RecordingStore;

constexpr std::size_t kCapacity = 16383;

// A store that fails when it is asked for its capacity, which is what the lazy store asks for with every save.
class FaultyCapacityStore : public RecordingStore {
public:
  using RecordingStore::RecordingStore;

  std::uint32_t Capacity() override {
    if (m_fault) {
      m_fault();
    }
    return RecordingStore::Capacity();
  }

  void OnCapacity(std::function<void()> fault) { m_fault = std::move(fault); }

private:
  std::function<void()> m_fault;
};

std::string Json(const std::string& section, const std::string& key, const std::string& value) {
  return R"({")" + section + R"(":{")" + key + R"(":")" + value + R"("}})";
}

TEST(RegistryBackEndSave, LeavesAChangePendingUntilTheFlush) {
  BackEnd back_end("[s]\nk=v\n");
  back_end->Write("s", "k", "1");
  back_end->Write("s", "k", "2");
  back_end->DeleteSection("s");
  EXPECT_TRUE(back_end.store->Writes().empty());
  back_end->Flush();
  EXPECT_EQ(back_end.store->Writes(), std::vector<std::string>{""});
  back_end->Flush();
  EXPECT_EQ(back_end.store->Writes().size(), 1U) << "nothing is pending any more";
}

TEST(RegistryBackEndSave, WritesWhatIsPendingWhenItIsDestroyed) {
  BackEnd back_end;
  back_end->Write("s", "k", "v");
  back_end.registry.reset();
  EXPECT_EQ(back_end.store->Writes(), std::vector<std::string>{"[s]\nk=v\n"});
}

TEST(RegistryBackEndSave, WritesNothingWhenItIsDestroyedUnchanged) {
  BackEnd back_end("[s]\r\nk=v");
  back_end.registry.reset();
  EXPECT_TRUE(back_end.store->Writes().empty());
}

TEST(RegistryBackEndSave, EndsTheProcessWhenTheLastWriteFails) {
  EXPECT_EXIT(
      {
        BackEnd back_end;
        back_end.store->OnWrite([] { throw std::runtime_error("no room"); });
        back_end->Write("s", "k", "v");
        back_end.registry.reset();
        std::exit(0);
      },
      testing::KilledBySignal(SIGABRT), "");
}

TEST(RegistryBackEndSave, FillsTheStoreToTheLastByte) {
  // "[s]\nk=" and the last line feed take 7 bytes, a percent sign in a value takes 3.
  const std::string fits(kCapacity - 7, 'x');
  const std::string percents = std::string(5458, '%') + "xx";
  const struct {
    const char* name;
    std::string text;
    std::function<void(Registry&, const std::string&)> operation;
    std::string fits;
  } rows[] = {
      {"Write a new section", "", [](Registry& r, const std::string& v) { r.Write("s", "k", v); }, fits},
      {"Write a value", "[s]\nk=a\n", [](Registry& r, const std::string& v) { r.Write("s", "k", v); }, fits},
      {"Write a new key", "[s]\nj\n", [](Registry& r, const std::string& v) { r.Write("s", "k", v); }, fits.substr(2)},
      {"Write what needs escapes", "", [](Registry& r, const std::string& v) { r.Write("s", "k", v); }, percents},
      {"Write a key without a value", "", [](Registry& r, const std::string& v) { r.Write("s", v, ""); }, fits + "xx"},
      {"Write a long section name", "", [](Registry& r, const std::string& v) { r.Write(v, "k", ""); }, fits + "xx"},
      {"WriteJson", "", [](Registry& r, const std::string& v) { r.WriteJson(Json("s", "k", v)); }, fits},
      {"WriteJson of a long key name", "", [](Registry& r, const std::string& v) { r.WriteJson(Json("s", v, "")); },
       fits + "xx"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    {
      BackEnd back_end(row.text);
      EXPECT_NO_THROW(row.operation(*back_end.registry, row.fits));
      EXPECT_EQ(back_end.FlushedText().size(), kCapacity);
    }
    BackEnd back_end(row.text);
    const std::string before = back_end->ReadAllJson();
    EXPECT_THROW(row.operation(*back_end.registry, row.fits + "x"), Registry::Full);
    EXPECT_EQ(back_end->ReadAllJson(), before);
    back_end->Flush();
    EXPECT_TRUE(back_end.store->Writes().empty());
  }
}

TEST(RegistryBackEndSave, KeepsTheOldValueWhenTheNewOneDoesNotFit) {
  BackEnd back_end;
  back_end->Write("s", "k", "old");
  EXPECT_THROW(back_end->Write("s", "k", std::string(kCapacity, 'x')), Registry::Full);
  EXPECT_EQ(back_end->Read("s", "k"), "old") << "the accepted text, although it was never written";
  EXPECT_EQ(back_end.FlushedText(), "[s]\nk=old\n");
}

TEST(RegistryBackEndSave, TakesTheCapacityFromTheStore) {
  BackEnd back_end("", 8);
  back_end->Write("s", "k", "v");
  EXPECT_THROW(back_end->Write("s", "k", "vv"), Registry::Full);
  EXPECT_THROW(back_end->Write("t", "", ""), Registry::Full);
  EXPECT_FALSE(back_end->SectionExists("t"));
}

TEST(RegistryBackEndSave, RefusesChangesThatLeaveALoadedTextTooLong) {
  const std::string text = "[s]\na=" + std::string(30, 'x') + "\nb=1\n[t]\n[u]\nc=2\n";
  const struct {
    const char* name;
    std::function<void(Registry&)> operation;
  } rows[] = {
      {"DeleteKey", [](Registry& r) { r.DeleteKey("s", "b"); }},
      {"DeleteSection", [](Registry& r) { r.DeleteSection("u"); }},
      {"Write", [](Registry& r) { r.Write("s", "b", ""); }},
      {"WriteJson that deletes", [](Registry& r) { r.WriteJson(R"({"s":{"b":null},"t":null})"); }},
      {"WriteJson of nothing", [](Registry& r) { r.WriteJson("{}"); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    BackEnd back_end(text, 20);
    const std::string before = back_end->ReadAllJson();
    EXPECT_THROW(row.operation(*back_end.registry), Registry::Full);
    EXPECT_EQ(back_end->ReadAllJson(), before);
    back_end->Flush();
    EXPECT_TRUE(back_end.store->Writes().empty());
    EXPECT_EQ(back_end.store->Reads(), 1) << "the text is kept in memory";
  }
}

TEST(RegistryBackEndSave, AcceptsTheChangeThatBringsALoadedTextBelowTheCapacity) {
  const std::string text = "[s]\na=" + std::string(30, 'x') + "\nb=1\n[t]\n";
  BackEnd back_end(text, 20);
  back_end->DeleteKey("s", "a");
  EXPECT_EQ(back_end.FlushedText(), "[s]\nb=1\n[t]\n");
  BackEnd emptied(text, 20);
  emptied->DeleteAll();
  EXPECT_EQ(emptied.FlushedText(), "");
}

TEST(RegistryBackEndSave, LosesAnUnsavedStraySectionWhenASaveFails) {
  BackEnd back_end("[s]\n");
  EXPECT_THROW(back_end->Write("stray", "\x80", "v"), Registry::InvalidName);
  EXPECT_THROW(back_end->Write("s", "k", std::string(kCapacity, 'x')), Registry::Full);
  EXPECT_EQ(back_end->ReadAllJson(), R"({"s":{}})");
}

TEST(RegistryBackEndSave, GoesBackByReadingTheAcceptedTextAgain) {
  BackEnd back_end;
  back_end->Write("s", "[k", "v");
  EXPECT_EQ(back_end->Read("s", "[k"), "v");
  EXPECT_THROW(back_end->Write("s", "x", std::string(kCapacity, 'x')), Registry::Full);
  // The key's line is a header by now.
  EXPECT_EQ(back_end->ReadAllJson(), R"({"k=v":{},"s":{}})");
}

TEST(RegistryBackEndSave, DiscardsAWholeMergeThatDoesNotFit) {
  BackEnd back_end("[keep]\nk=v\n[gone]\nk=v\n");
  const std::string before = back_end->ReadAllJson();
  EXPECT_THROW(back_end->WriteJson(R"({"a":{"k":"v"},"gone":null,"keep":{"k":null},"z":{"k":")" +
                                   std::string(kCapacity, 'x') + R"("}})"),
               Registry::Full);
  EXPECT_EQ(back_end->ReadAllJson(), before);
  back_end->Flush();
  EXPECT_TRUE(back_end.store->Writes().empty());
}

TEST(RegistryBackEndSave, FillsTheStoreToTheLastByteByAMergeOfManySections) {
  // 1023 sections of 16 bytes, as "[a1000]\nk=vvvvv\n" is, and 15 bytes for the last one.
  std::string json = "{";
  for (int i = 0; i < 1023; ++i) {
    json += "\"a" + std::to_string(1000 + i) + "\":{\"k\":\"vvvvv\"},";
  }
  const std::string fits = json + R"("z":{"k":"12345678"}})";
  const std::string too_long = json + R"("z":{"k":"123456789"}})";
  BackEnd back_end("[b]\n");
  EXPECT_THROW(back_end->WriteJson(too_long), Registry::Full);
  EXPECT_EQ(back_end->ReadAllJson(), R"({"b":{}})");
  back_end->DeleteSection("b");
  back_end->WriteJson(fits);
  EXPECT_EQ(back_end.store->Text().size(), kCapacity);
  EXPECT_THROW(back_end->WriteJson(too_long), Registry::Full);
  EXPECT_EQ(back_end->Read("z", "k"), "12345678");
}

TEST(RegistryBackEndSave, KeepsEveryMemberOfAMergeThatFillsTheStore) {
  const std::string half(8000, 'x');
  BackEnd sections;
  sections->WriteJson(R"({"a":{"k":")" + half + R"("},"b":{"k":")" + half + std::string(362, 'y') +
                      R"("},"c":{"":"v"}})");
  EXPECT_EQ(sections.store->Text().size(), kCapacity);
  EXPECT_EQ(sections->Read("c", ""), "v");
  BackEnd deletion("[z]\nk=v\n");
  deletion->WriteJson(R"({"a":{")" + std::string(kCapacity - 5, 'x') + R"(":""},"z":null})");
  EXPECT_EQ(deletion.store->Text().size(), kCapacity);
  BackEnd keys;
  keys->WriteJson(R"({"s":{"a":")" + half + R"(","b":")" + half + std::string(368, 'y') + R"(","c":"","d":""}})");
  EXPECT_EQ(keys.store->Text().size(), kCapacity - 1);
  EXPECT_TRUE(keys->KeyExists("s", "d"));
}

TEST(RegistryBackEndSave, UndoesAChangeThatTheStoreRefusesForAnotherReason) {
  const struct {
    const char* name;
    std::function<void(Registry&)> operation;
  } rows[] = {
      {"Write", [](Registry& r) { r.Write("t", "k", "v"); }},
      {"DeleteKey", [](Registry& r) { r.DeleteKey("s", "k"); }},
      {"DeleteSection", [](Registry& r) { r.DeleteSection("s"); }},
      {"DeleteAll", [](Registry& r) { r.DeleteAll(); }},
      {"WriteJson", [](Registry& r) { r.WriteJson(R"({"s":null,"t":{"k":"v"}})"); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto store = std::make_shared<FaultyCapacityStore>("[s]\nk=v\n");
    RegistryBackEnd registry(store);
    store->OnCapacity([] { throw bramble::ErrnoException(5, "store"); });
    try {
      row.operation(registry);
      ADD_FAILURE() << "no exception";
    } catch (const bramble::ErrnoException& e) {
      EXPECT_EQ(e.ErrorNumber(), 5);
    }
    EXPECT_EQ(registry.ReadAllJson(), R"({"s":{"k":"v"}})");
    store->OnCapacity([] { throw 42; });
    EXPECT_THROW(row.operation(registry), int);
    EXPECT_EQ(registry.ReadAllJson(), R"({"s":{"k":"v"}})");
    registry.Flush();
    EXPECT_TRUE(store->Writes().empty());
    store->OnCapacity(nullptr);
    row.operation(registry);
    EXPECT_NE(registry.ReadAllJson(), R"({"s":{"k":"v"}})") << "the registry goes on";
  }
}

TEST(RegistryBackEndFlush, PassesOnWhatTheStoreThrowsAndKeepsTheTextPending) {
  BackEnd back_end("[s]\nk=v\n");
  back_end->Write("s", "k", "w");
  back_end.store->OnWrite([] { throw bramble::ErrnoException(28); });
  EXPECT_THROW(back_end->Flush(), bramble::ErrnoException);
  back_end.store->OnWrite([] { throw 42; });
  EXPECT_THROW(back_end->Flush(), int);
  back_end.store->OnWrite([] { throw PersistentStore::Full(); });
  EXPECT_THROW(back_end->Flush(), PersistentStore::Full);
  EXPECT_EQ(back_end->Read("s", "k"), "w");
  EXPECT_TRUE(back_end.store->Writes().empty());
  back_end.store->OnWrite(nullptr);
  back_end->Flush();
  EXPECT_EQ(back_end.store->Writes(), std::vector<std::string>{"[s]\nk=w\n"});
}

TEST(RegistryBackEndFlush, WritesTheTextThatIsPendingAtItsTime) {
  BackEnd back_end;
  back_end->Write("s", "k", "1");
  back_end.store->OnWrite([] { throw std::bad_alloc(); });
  EXPECT_THROW(back_end->Flush(), std::bad_alloc);
  back_end.store->OnWrite(nullptr);
  back_end->Write("s", "k", "2");
  EXPECT_EQ(back_end.FlushedText(), "[s]\nk=2\n");
  EXPECT_EQ(back_end.store->Writes().size(), 1U);
}

}  // namespace
