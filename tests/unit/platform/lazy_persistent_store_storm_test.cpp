// Threads write, flush and read one store at random while its worker writes too. The texts in the underlying store are
// compared with the accepted ones: their order is the same, no text is written twice, and the worker writes no earlier
// than the delay after the write before.
//
// For longer: platform_test --gtest_filter='*Storm*' --gtest_repeat=100
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>

#include "lib/platform/lazy_persistent_store.h"
#include "tests/unit/platform/platform_test.h"
#include "tests/unit/platform/storm.h"

using namespace test_platform;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr int kSteps = 20000;

// Accepts texts that are rising numbers. The lock of the lazy store guards it.
class RisingStore : public PersistentStore {
public:
  explicit RisingStore(std::uint32_t delay) : m_delay(delay) {}

  std::string Read() override { return std::to_string(written); }

  void Write(const std::string& text) override {
    const int number = std::stoi(text);
    EXPECT_GT(number, written) << "written twice, or in the wrong order";
    const bool is_worker = OwnThreadName() == "DALazyStore";
    if (is_worker) {
      EXPECT_GE(steady_clock::now(), m_last_write + m_delay) << "the worker writes too early";
    }
    ++(is_worker ? by_worker : by_callers);
    written = number;
    m_last_write = steady_clock::now();
  }

  std::uint32_t Capacity() override { return 100; }

  std::atomic<int> written{0};
  std::atomic<int> by_worker{0};
  std::atomic<int> by_callers{0};

private:
  const milliseconds m_delay;  // of the lazy store
  steady_clock::time_point m_last_write = steady_clock::now();
};

// Numbers the texts in the order in which they are accepted.
class Writer {
public:
  void Write(LazyPersistentStore& lazy) {
    const std::lock_guard<std::mutex> guard(m_lock);
    lazy.Write(std::to_string(++accepted));
  }

  std::atomic<int> accepted{0};

private:
  std::mutex m_lock;
};

void Step(LazyPersistentStore& lazy, RisingStore& store, Writer& writer, Random& random) {
  switch (random() % 100) {
    case 0: {
      // The worker writes it, or a flush of another thread.
      const int accepted = writer.accepted;
      EXPECT_TRUE(WaitUntil([&] { return store.written >= accepted; }));
      break;
    }
    case 1:
      lazy.Flush();
      break;
    case 2: {
      const int before = store.written;
      const int number = std::stoi(lazy.Read());
      EXPECT_GE(number, before);
      EXPECT_LE(number, writer.accepted);
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

TEST(LazyStoreStorm, WritesTheAcceptedTextsInTheirOrderAndInTime) {
  const auto store = std::make_shared<RisingStore>(1);
  LazyPersistentStore lazy(store, 1);
  Writer writer;
  EXPECT_EQ(lazy.Read(), "0");
  Storm(kSteps, [&](Random& random) { Step(lazy, *store, writer, random); });
  EXPECT_GT(store->by_callers, 0);
  EXPECT_GT(store->by_worker, 0);

  const int by_worker = store->by_worker;
  writer.Write(lazy);
  EXPECT_TRUE(WaitUntil([&] { return store->written == writer.accepted; }));
  EXPECT_GT(store->by_worker, by_worker);
}

TEST(LazyStoreStorm, LosesNoTextIfItIsDestroyedInAnyState) {
  Storm(kSteps / 100, [](Random& random) {
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
    EXPECT_EQ(store->written, writer.accepted);
  });
}
