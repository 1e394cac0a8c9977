// Threads write, flush and read one store at random while its worker writes too. The texts in the underlying store are
// compared with the accepted ones: their order is the same, no text is written twice, and the worker writes no earlier
// than the delay after the write before.
//
// For longer: platform_test --gtest_filter='*Storm*' --gtest_repeat=100
#include <deque>
#include <mutex>
#include <random>

#include "lib/platform/lazy_persistent_store.h"
#include "tests/unit/platform/platform_test.h"

using namespace test_platform;
using Random = std::minstd_rand;
using std::chrono::steady_clock;

namespace {

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

  /// Makes the lazy store accept the next number. Without that store's lock.
  void Accept(LazyPersistentStore& lazy) {
    const std::lock_guard<std::mutex> guard(m_accept_lock);
    lazy.Write(std::to_string(++accepted));
  }

  std::atomic<int> accepted{0};
  std::atomic<int> written{0};
  std::atomic<int> by_worker{0};
  std::atomic<int> by_callers{0};

private:
  const std::chrono::milliseconds m_delay;  // of the lazy store
  steady_clock::time_point m_last_write = steady_clock::now();
  std::mutex m_accept_lock;
};

void Step(LazyPersistentStore& lazy, RisingStore& store, Random& random) {
  switch (random() % 100) {
    case 0: {
      // The worker writes it, or a flush of another thread.
      const int accepted = store.accepted;
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
      EXPECT_LE(number, store.accepted);
      break;
    }
    case 3:
      EXPECT_EQ(lazy.Capacity(), 100U);
      EXPECT_THROW(lazy.Write(std::string(101, '9')), PersistentStore::Full);
      break;
    default:
      store.Accept(lazy);
      break;
  }
}

// Calls `step(random)` `count` times on each of four threads. The seed differs from run to run; failures show it.
template <typename Call>
void Storm(int count, Call step) {
  const unsigned seed = std::random_device()();
  std::deque<OtherThread> threads;
  for (unsigned i = 0; i < 4; ++i) {
    threads.emplace_back([=, &step] {
      SCOPED_TRACE("seed " + std::to_string(seed));
      Random random(seed + i);
      for (int n = 0; n < count && !testing::Test::HasFailure(); ++n) {
        step(random);
      }
    });
  }
}

}  // namespace

TEST(LazyStoreStorm, WritesTheAcceptedTextsInTheirOrderAndInTime) {
  const auto store = std::make_shared<RisingStore>(1);
  LazyPersistentStore lazy(store, 1);
  EXPECT_EQ(lazy.Read(), "0");
  Storm(20000, [&](Random& random) { Step(lazy, *store, random); });
  EXPECT_GT(store->by_callers, 0);
  EXPECT_GT(store->by_worker, 0);

  const int by_worker = store->by_worker;
  store->Accept(lazy);
  EXPECT_TRUE(WaitUntil([&] { return store->written == store->accepted; }));
  EXPECT_GT(store->by_worker, by_worker);
}

TEST(LazyStoreStorm, LosesNoTextIfItIsDestroyedInAnyState) {
  Storm(200, [](Random& random) {
    const auto delay = static_cast<std::uint32_t>(random() % 3);
    const auto store = std::make_shared<RisingStore>(delay);
    {
      LazyPersistentStore lazy(store, delay);
      lazy.Read();
      for (auto steps = random() % 5; steps > 0; --steps) {
        Step(lazy, *store, random);
      }
    }
    EXPECT_EQ(store->written, store->accepted);
  });
}
