// Many threads write, flush and read one store at random, while its worker writes as well. What reaches the underlying
// store is held against what was accepted: in its order, never the same twice, and by the worker never before the delay
// has passed since the write before.
//
// For longer: platform_test --gtest_filter='*Storm*' --gtest_repeat=100
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "lib/platform/lazy_persistent_store.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/storm.h"
#include "tests/unit/platform/threads.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test_platform::Random;

namespace {

constexpr unsigned kThreads = 4;
constexpr int kSteps = 20000;
constexpr std::uint32_t kDelay = 1;  // milliseconds
constexpr char kWorker[] = "DALazyStore";

// Takes texts that are rising numbers. The lazy store's lock guards it.
class RisingStore : public PersistentStore {
public:
  explicit RisingStore(std::uint32_t delay) : m_delay(delay) {}

  std::string Read() override { return std::to_string(m_written); }

  void Write(const std::string& text) override {
    const int number = std::stoi(text);
    EXPECT_GT(number, m_written) << "written again, or out of turn";
    const bool is_worker = test_platform::OwnThreadName() == kWorker;
    if (is_worker) {
      EXPECT_GE(steady_clock::now(), m_last_write + m_delay) << "the worker came too early";
    }
    (is_worker ? m_by_worker : m_by_callers) += 1;
    m_written = number;
    m_last_write = steady_clock::now();
  }

  std::uint32_t Capacity() override { return 100; }

  int Written() const { return m_written; }
  int ByWorker() const { return m_by_worker; }
  int ByCallers() const { return m_by_callers; }

private:
  const milliseconds m_delay;  // of the lazy store
  std::atomic<int> m_written{0};
  std::atomic<int> m_by_worker{0};
  std::atomic<int> m_by_callers{0};
  steady_clock::time_point m_last_write = steady_clock::now();
};

// Numbers the texts in the order in which they are accepted.
class Writer {
public:
  void Write(LazyPersistentStore& lazy) {
    const std::lock_guard<std::mutex> guard(m_lock);
    lazy.Write(std::to_string(++m_accepted));
  }

  int Accepted() const { return m_accepted; }

private:
  std::mutex m_lock;
  std::atomic<int> m_accepted{0};
};

void Step(LazyPersistentStore& lazy, RisingStore& store, Writer& writer, Random& random) {
  switch (random() % 100) {
    case 0: {
      // Nothing but the worker or another thread's flush can write it.
      const int accepted = writer.Accepted();
      EXPECT_TRUE(test_platform::WaitUntil([&] { return store.Written() >= accepted; }));
      break;
    }
    case 1:
      lazy.Flush();
      break;
    case 2: {
      const int before = store.Written();
      const int number = std::stoi(lazy.Read());
      EXPECT_GE(number, before);
      EXPECT_LE(number, writer.Accepted());
      break;
    }
    case 3:
      EXPECT_EQ(lazy.Capacity(), 100U);
      EXPECT_THROW(lazy.Write(std::string(101, '9')), PersistentStore::Full);
      break;
    default:
      writer.Write(lazy);
      break;
  }
}

}  // namespace

TEST(LazyStoreStorm, WritesWhatWasAcceptedInItsOrderAndInTime) {
  const unsigned seed = test_platform::NewSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  const auto store = std::make_shared<RisingStore>(kDelay);
  LazyPersistentStore lazy(store, kDelay);
  Writer writer;
  EXPECT_EQ(lazy.Read(), "0");
  test_platform::Storm(seed, kThreads, kSteps, [&](Random& random) { Step(lazy, *store, writer, random); });
  EXPECT_GT(store->ByCallers(), 0);
  EXPECT_GT(store->ByWorker(), 0);

  const int by_worker = store->ByWorker();
  writer.Write(lazy);
  EXPECT_TRUE(test_platform::WaitUntil([&] { return store->Written() == writer.Accepted(); }));
  EXPECT_GT(store->ByWorker(), by_worker);
}

TEST(LazyStoreStorm, LosesNothingWhenItIsDestroyedInAnyState) {
  const unsigned seed = test_platform::NewSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  test_platform::Storm(seed, kThreads, kSteps / 100, [](Random& random) {
    const auto delay = static_cast<std::uint32_t>(random() % 3);
    const auto store = std::make_shared<RisingStore>(delay);
    Writer writer;
    {
      LazyPersistentStore lazy(store, delay);
      lazy.Read();
      for (auto steps = random() % 5; steps > 0; --steps) {
        Step(lazy, *store, writer, random);
      }
    }
    EXPECT_EQ(store->Written(), writer.Accepted());
  });
}
