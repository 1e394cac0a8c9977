// What runs at the same time as what: the callbacks run with the registry's lock held, and a flush needs only the
// store's.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/threads.h"
#include "tests/unit/registry/back_end_fixture.h"

namespace {

// An operation in a thread of its own.
class Elsewhere {
public:
  explicit Elsewhere(const std::function<void()>& operation)
      : m_thread([this, operation] {
          m_id = ::gettid();
          operation();
          m_ended = true;
        }) {}
  ~Elsewhere() { m_thread.join(); }
  Elsewhere(const Elsewhere&) = delete;
  Elsewhere& operator=(const Elsewhere&) = delete;

  bool Ends() const {
    return test_platform::WaitUntil([this] { return m_ended.load(); });
  }

  /// Whether the operation waits for a lock, which is all that it can wait for. False if it has ended.
  bool Waits() const {
    EXPECT_TRUE(test_platform::WaitUntil([this] { return m_ended || (m_id != 0 && test_platform::Sleeps(m_id)); }));
    return !m_ended;
  }

private:
  std::atomic<pid_t> m_id{0};
  std::atomic<bool> m_ended{false};
  std::thread m_thread;
};

struct Operation {
  const char* name;
  std::function<void(RegistryBackEnd&)> run;
};

const std::vector<Operation>& LockedOperations() {
  static const std::vector<Operation> operations = {
      {"ReadAllJson", [](RegistryBackEnd& r) { r.ReadAllJson(); }},
      {"WriteJson", [](RegistryBackEnd& r) { r.WriteJson("{}"); }},
      {"Read", [](RegistryBackEnd& r) { r.Read("s", "k"); }},
      {"Write", [](RegistryBackEnd& r) { r.Write("s", "k", "w"); }},
      {"KeyExists", [](RegistryBackEnd& r) { r.KeyExists("s", "k"); }},
      {"SectionExists", [](RegistryBackEnd& r) { r.SectionExists("s"); }},
      {"DeleteKey", [](RegistryBackEnd& r) { r.DeleteKey("s", "k"); }},
      {"DeleteSection", [](RegistryBackEnd& r) { r.DeleteSection("s"); }},
      {"DeleteAll", [](RegistryBackEnd& r) { r.DeleteAll(); }},
      {"SectionList", [](RegistryBackEnd& r) { r.SectionList([](const std::string&) {}); }},
      {"KeyList", [](RegistryBackEnd& r) { r.KeyList("s", [](const std::string&, const std::string&) {}); }},
      {"KeyList as a copy", [](RegistryBackEnd& r) { r.KeyList("s"); }},
  };
  return operations;
}

TEST(RegistryBackEndLock, HoldsOthersUpWhileASectionCallbackRuns) {
  for (const Operation& operation : LockedOperations()) {
    SCOPED_TRACE(operation.name);
    BackEnd back_end("[s]\nk=v\n");
    std::optional<Elsewhere> elsewhere;
    back_end->SectionList([&](const std::string&) {
      elsewhere.emplace([&] { operation.run(*back_end.registry); });
      EXPECT_TRUE(elsewhere->Waits());
      // A change must not wait as late as for its save.
      EXPECT_EQ(back_end->ReadAllJson(), R"({"s":{"k":"v"}})");
    });
    EXPECT_TRUE(elsewhere->Ends());
  }
}

// Calls a hook when it is asked for its capacity, as a save does.
class HookedStore : public test_support::RecordingStore {
public:
  using RecordingStore::RecordingStore;

  std::uint32_t Capacity() override {
    if (m_hook) {
      m_hook();
    }
    return RecordingStore::Capacity();
  }

  void OnCapacity(std::function<void()> hook) { m_hook = std::move(hook); }

private:
  std::function<void()> m_hook;
};

TEST(RegistryBackEndLock, HoldsOthersUpUntilTheSaveHasEnded) {
  const Operation operations[] = {
      {"Write", [](RegistryBackEnd& r) { r.Write("s", "k", "w"); }},
      {"DeleteKey", [](RegistryBackEnd& r) { r.DeleteKey("s", "k"); }},
      {"DeleteSection", [](RegistryBackEnd& r) { r.DeleteSection("s"); }},
      {"DeleteAll", [](RegistryBackEnd& r) { r.DeleteAll(); }},
  };
  for (const Operation& operation : operations) {
    SCOPED_TRACE(operation.name);
    const auto store = std::make_shared<HookedStore>("[s]\nk=v\n");
    RegistryBackEnd back_end(store);
    std::optional<Elsewhere> elsewhere;
    store->OnCapacity([&] {
      if (!elsewhere) {
        elsewhere.emplace([&] { back_end.Read("s", "k"); });
        EXPECT_TRUE(elsewhere->Waits());
      }
    });
    operation.run(back_end);
    ASSERT_TRUE(elsewhere);
    EXPECT_TRUE(elsewhere->Ends());
  }
}

// Deliberately: only the save after the merge takes the lock.
TEST(RegistryBackEndLock, LetsOthersReadDuringTheMergeOfAnImport) {
  const auto store = std::make_shared<HookedStore>("[s]\nk=v\n");
  RegistryBackEnd back_end(store);
  std::vector<bool> waited;
  std::list<Elsewhere> elsewhere;
  store->OnCapacity([&] {
    elsewhere.emplace_back([&] { back_end.Read("s", "k"); });
    waited.push_back(elsewhere.back().Waits());
  });
  back_end.WriteJson(R"({"s":{"k":"w"}})");
  store->OnCapacity(nullptr);
  EXPECT_EQ(waited, (std::vector<bool>{false, true})) << "the merge and the save ask for the capacity";
}

TEST(RegistryBackEndLock, HoldsOthersUpWhileAKeyCallbackRuns) {
  BackEnd back_end("[s]\nk=v\n");
  std::optional<Elsewhere> elsewhere;
  back_end->KeyList("s", [&](const std::string&, const std::string&) {
    elsewhere.emplace([&] { back_end->Read("s", "k"); });
    EXPECT_TRUE(elsewhere->Waits());
  });
  EXPECT_TRUE(elsewhere->Ends());
}

TEST(RegistryBackEndLock, LetsAFlushRunWhileACallbackRuns) {
  BackEnd back_end("[s]\nk=v\n");
  back_end->Write("s", "k", "w");
  std::optional<Elsewhere> elsewhere;
  back_end->SectionList([&](const std::string&) {
    elsewhere.emplace([&] { back_end->Flush(); });
    ASSERT_TRUE(elsewhere->Ends());
    EXPECT_EQ(back_end.store->Text(), "[s]\nk=w\n");
  });
}

TEST(RegistryBackEndLock, LetsACallbackUseTheRegistry) {
  BackEnd back_end("[s]\nk=v\n");
  std::string seen;
  back_end->SectionList([&](const std::string& section) {
    back_end->KeyList(section, [&](const std::string& key, const std::string& value) {
      seen += section + "." + key + "=" + value + " " + back_end->ReadAllJson();
    });
  });
  EXPECT_EQ(seen, R"(s.k=v {"s":{"k":"v"}})");
  back_end->KeyList("s", [&](const std::string& key, const std::string&) { back_end->Write("s", key, "w"); });
  EXPECT_EQ(back_end->Read("s", "k"), "w");
}

TEST(RegistryBackEndLock, HoldsReadersUpNotAtAllAfterACallbackThrew) {
  BackEnd back_end("[s]\nk=v\n");
  EXPECT_THROW(back_end->SectionList([](const std::string&) { throw 42; }), int);
  Elsewhere elsewhere([&] { back_end->Read("s", "k"); });
  EXPECT_TRUE(elsewhere.Ends());
}

TEST(RegistryBackEndLock, LosesNoWriteOfManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kKeys = 40;
  BackEnd back_end;
  {
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
      writers.emplace_back([&, t] {
        for (int k = 0; k < kKeys; ++k) {
          back_end->Write("s" + std::to_string(t % 2), std::to_string(t) + "." + std::to_string(k), "v");
          back_end->ReadAllJson();
          back_end->Flush();
        }
      });
    }
    for (std::thread& writer : writers) {
      writer.join();
    }
  }
  EXPECT_EQ(back_end.registry->KeyList("s0").size() + back_end.registry->KeyList("s1").size(),
            static_cast<std::size_t>(kThreads * kKeys));
  EXPECT_EQ(ParseRegistry(back_end.FlushedText()).at("s0"), back_end.registry->KeyList("s0"));
}

}  // namespace
