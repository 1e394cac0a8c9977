// When the worker writes. Most tests set the clock. A store is made at a time so long past that its deadline is soon in
// real time. The clock is then moved around the deadline.

#include "lib/platform/lazy_persistent_store.h"
#include "lib/platform/monotonic_time.h"
#include "tests/unit/platform/platform_test.h"
#include "tests/unit/support/stores.h"

using namespace test_platform;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;

namespace {

constexpr std::uint32_t kMinute = 60000;  // the delay of the registry, in milliseconds

// A clock that reaches the second `deadline` soon in real time, in which the worker waits. The calls before the
// deadline are usually made before the worker begins to look at the clock.
class HandSetClock {
public:
  explicit HandSetClock(std::uint64_t deadline) : m_zero(Zero(deadline)), m_clock(m_zero) {}

  void Set(std::uint64_t seconds, std::uint64_t microseconds = 0) {
    m_clock.Set(AddMicroseconds(m_zero, seconds * 1000000 + microseconds));
  }

  /// Returns after the worker has looked at the time that was set last, several times.
  bool WaitUntilSeen() { return m_clock.WaitForReads(20); }

private:
  static timespec Zero(std::uint64_t deadline) {
    timespec zero = AddMicroseconds(get_monotonic_time(), 100000);
    zero.tv_sec -= static_cast<time_t>(deadline);
    return zero;
  }

  timespec m_zero;
  FakeClock m_clock;
};

// Each write calls a hook and is then recorded.
class LazyStoreTiming : public testing::Test {
protected:
  LazyStoreTiming() {
    m_store->OnWrite([this] {
      m_hook();
      m_writes.Record();
    });
  }

  CapturedStderr m_stderr;
  EventLog m_writes;
  std::function<void()> m_hook = [] {};
  std::shared_ptr<RecordingStore> m_store = std::make_shared<RecordingStore>();
};

}  // namespace

TEST_F(LazyStoreTiming, WritesTheLastTextFromItsWorkerAfterTheDelay) {
  std::string writer;
  m_hook = [&writer] { writer = OwnThreadName(); };
  LazyPersistentStore lazy(m_store, 50);
  const auto start = steady_clock::now();
  lazy.Write("one");
  lazy.Write("two");
  ASSERT_TRUE(m_writes.WaitFor(1));
  EXPECT_GE(m_writes.Stamp(0), start + milliseconds(50));
  EXPECT_EQ(lazy.Read(), "two");
  EXPECT_EQ(writer, "DALazyStore");
  EXPECT_THAT(m_store->Writes(), ElementsAre("two"));
}

TEST_F(LazyStoreTiming, SetsADeadlineWithTheFirstWriteAfterAFlush) {
  HandSetClock clock(90);
  LazyPersistentStore lazy(m_store, kMinute);
  lazy.Write("at 0 s");
  lazy.Flush();
  clock.Set(30);
  lazy.Write("at 30 s");
  clock.Set(60);
  lazy.Write("at 60 s");
  clock.Set(89);
  lazy.Write("at 89 s");
  clock.Set(90);
  ASSERT_TRUE(clock.WaitUntilSeen());
  EXPECT_EQ(m_writes.Count(), 1U) << "it is written before the deadline of the first change after the flush";
  clock.Set(90, 1);
  ASSERT_TRUE(m_writes.WaitFor(2));

  HandSetClock next_clock(60);
  lazy.Write("after the flush of the worker");
  next_clock.Set(60);
  ASSERT_TRUE(next_clock.WaitUntilSeen());
  EXPECT_EQ(m_writes.Count(), 2U);
  next_clock.Set(60, 1);
  ASSERT_TRUE(m_writes.WaitFor(3));
  EXPECT_EQ(lazy.Read(), "after the flush of the worker");
  EXPECT_THAT(m_store->Writes(), ElementsAre("at 0 s", "at 89 s", "after the flush of the worker"));
}

TEST_F(LazyStoreTiming, KeepsTheDeadlineIfACallFails) {
  const std::tuple<const char*, void (*)(LazyPersistentStore&)> rows[] = {
      {"refused text",
       [](LazyPersistentStore& lazy) { EXPECT_THROW(lazy.Write(std::string(16384, 'x')), PersistentStore::Full); }},
      {"failed flush", [](LazyPersistentStore& lazy) { EXPECT_THROW(lazy.Flush(), std::runtime_error); }},
  };
  for (const auto& [name, call] : rows) {
    SCOPED_TRACE(name);
    const std::size_t writes = m_writes.Count();
    HandSetClock clock(60);
    LazyPersistentStore lazy(m_store, kMinute);
    lazy.Write(name);
    m_hook = [] { throw std::runtime_error("cannot write"); };
    clock.Set(30);  // a new deadline would be at 90 s
    call(lazy);
    lazy.Capacity();  // takes the lock, which orders the accesses to m_hook
    m_hook = [] {};
    clock.Set(60);
    ASSERT_TRUE(clock.WaitUntilSeen());
    EXPECT_EQ(m_writes.Count(), writes);
    clock.Set(60, 1);
    ASSERT_TRUE(m_writes.WaitFor(writes + 1));
    EXPECT_EQ(lazy.Read(), name);
    EXPECT_EQ(m_store->Text(), name);
  }
}

TEST_F(LazyStoreTiming, TakesDelaysOverAnHour) {
  HandSetClock clock(4295);
  LazyPersistentStore lazy(m_store, 4295000);  // its microseconds do not fit 32 bits
  lazy.Write("pending");
  clock.Set(4295);
  ASSERT_TRUE(clock.WaitUntilSeen());
  EXPECT_EQ(m_writes.Count(), 0U);
  clock.Set(4295, 1);
  EXPECT_TRUE(m_writes.WaitFor(1));
}

TEST_F(LazyStoreTiming, FlushesWithTheVirtualFunction) {
  class CountingStore : public LazyPersistentStore {
  public:
    using LazyPersistentStore::LazyPersistentStore;
    void Flush() override {
      LazyPersistentStore::Flush();
      flushes.Record();
    }
    EventLog flushes;
  };
  CountingStore lazy(m_store, 1);
  lazy.Write("pending");
  EXPECT_TRUE(lazy.flushes.WaitFor(1));
  EXPECT_EQ(lazy.Read(), "pending");
  EXPECT_THAT(m_store->Writes(), ElementsAre("pending"));
}
