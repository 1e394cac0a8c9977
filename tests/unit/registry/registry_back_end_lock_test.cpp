// Which operations run in parallel. Callbacks run while the lock of the registry is held. A flush takes only the lock
// of the store.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/threads.h"
#include "tests/unit/registry/back_end_fixture.h"

namespace {

// Runs an operation on another thread.
class Elsewhere {
public:
  explicit Elsewhere(std::function<void()> operation)
      : m_thread([this, operation = std::move(operation)] {
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

  /// Waits until the operation sleeps or has ended. Returns whether it sleeps. It can only wait for a lock.
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
  std::vector<bool> lets_others_wait = {};  // each time that it asks for the capacity
};

// WriteJson asks for the capacity during its merge and during its save. Deliberately, only the save holds the lock.
const Operation kOperations[] = {
    {"ReadAllJson", [](auto& r) { r.ReadAllJson(); }},
    {"WriteJson", [](auto& r) { r.WriteJson("{}"); }, {false, true}},
    {"Read", [](auto& r) { r.Read("s", "k"); }},
    {"Write", [](auto& r) { r.Write("s", "k", "w"); }, {true}},
    {"KeyExists", [](auto& r) { r.KeyExists("s", "k"); }},
    {"SectionExists", [](auto& r) { r.SectionExists("s"); }},
    {"DeleteKey", [](auto& r) { r.DeleteKey("s", "k"); }, {true}},
    {"DeleteSection", [](auto& r) { r.DeleteSection("s"); }, {true}},
    {"DeleteAll", [](auto& r) { r.DeleteAll(); }, {true}},
    {"SectionList", [](auto& r) { r.SectionList([](const std::string&) {}); }},
    {"KeyList", [](auto& r) { r.KeyList("s", [](const std::string&, const std::string&) {}); }},
    {"KeyList as a map", [](auto& r) { r.KeyList("s"); }},
};

TEST(RegistryBackEndLock, LetsOperationsWaitWhileACallbackRuns) {
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.name);
    BackEnd back_end("[s]\nk=v\n");
    std::optional<Elsewhere> elsewhere;
    const auto callback = [&](const std::string&, const std::string& = "") {
      elsewhere.emplace([&] { operation.run(*back_end.registry); });
      EXPECT_TRUE(elsewhere->Waits());
      EXPECT_EQ(back_end->ReadAllJson(), R"({"s":{"k":"v"}})") << "a change waits before it changes anything";
    };
    back_end->KeyList("s", callback);
    EXPECT_TRUE(elsewhere->Ends());
    back_end.registry->WriteJson(R"({"s":{"k":"v"}})");
    back_end->SectionList(callback);
    EXPECT_TRUE(elsewhere->Ends());
  }
}

TEST(RegistryBackEndLock, LetsReadersWaitDuringASaveButNotDuringAMerge) {
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.name);
    BackEnd back_end("[s]\nk=v\n");
    std::vector<bool> waits;
    std::list<Elsewhere> elsewhere;
    back_end.store->OnCapacity([&] {
      elsewhere.emplace_back([&] { back_end->Read("s", "k"); });
      waits.push_back(elsewhere.back().Waits());
    });
    operation.run(*back_end.registry);
    back_end.store->OnCapacity(nullptr);
    EXPECT_EQ(waits, operation.lets_others_wait);
  }
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
      back_end->Write("s", key, "w");
    });
  });
  EXPECT_EQ(seen, R"(s.k=v {"s":{"k":"v"}})");
  EXPECT_EQ(back_end->Read("s", "k"), "w");
}

TEST(RegistryBackEndLock, IsReleasedAfterACallbackThrew) {
  BackEnd back_end("[s]\nk=v\n");
  EXPECT_THROW(back_end->SectionList([](const std::string&) { throw 42; }), int);
  EXPECT_TRUE(Elsewhere([&] { back_end->Read("s", "k"); }).Ends());
}

TEST(RegistryBackEndLock, LosesNoWriteOfManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kKeys = 40;
  BackEnd back_end;
  std::list<std::thread> writers;
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
  const RegistrySections sections = ParseRegistry(back_end.FlushedText());
  EXPECT_EQ(sections.at("s0").size() + sections.at("s1").size(), std::size_t{kThreads * kKeys});
  EXPECT_EQ(sections.at("s0"), back_end.registry->KeyList("s0"));
}

}  // namespace
