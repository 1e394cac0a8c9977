// When the worker writes. Most tests set the clock by hand: a store is made at a time so long past that its deadline
// comes when the test is ready, and the clock is then moved around the deadline.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

#include "lib/platform/lazy_persistent_store.h"
#include "lib/platform/monotonic_time.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/threads.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/stores.h"
#include "tests/unit/support/wrapped_calls.h"

using bramble::AddMicroseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test_platform::EventLog;
using test_support::RecordingStore;
using testing::ElementsAre;
using testing::IsEmpty;
using wrapped_calls::FakeClock;

namespace {

constexpr std::uint64_t kSecond = 1000000;
constexpr std::uint32_t kMinute = 60000;  // the delay of the registry, in milliseconds

// A store that announces each write.
class AnnouncingStore {
public:
  AnnouncingStore() {
    store->OnWrite([this] { writes.Record(); });
  }

  std::shared_ptr<RecordingStore> store = std::make_shared<RecordingStore>();
  EventLog writes;
};

// A clock on which the second `deadline` is a moment away from now, in the real time that waits are made in. So the
// calls that come before it are done when the worker begins to look at the clock.
class HandSetClock {
public:
  explicit HandSetClock(std::uint64_t deadline) : m_zero(Zero(deadline)), m_clock(m_zero) {}

  void Set(std::uint64_t seconds, std::uint64_t microseconds = 0) {
    m_clock.Set(AddMicroseconds(m_zero, seconds * kSecond + microseconds));
  }

  /// Returns when the worker has looked at the time set last, several times.
  bool WaitUntilSeen() { return m_clock.WaitForReads(20); }

private:
  static timespec Zero(std::uint64_t deadline) {
    timespec zero = AddMicroseconds(bramble::get_monotonic_time(), 100000);
    zero.tv_sec -= static_cast<time_t>(deadline);
    return zero;
  }

  timespec m_zero;
  FakeClock m_clock;
};

class LazyStoreTiming : public testing::Test {
protected:
  test_support::CapturedStderr m_stderr;
  AnnouncingStore m_announced;
};

}  // namespace

TEST_F(LazyStoreTiming, NamesItsWorker) {
  const LazyPersistentStore lazy(m_announced.store, kMinute);
  EXPECT_TRUE(test_platform::WaitUntil([] { return test_platform::HasThreadNamed("DALazyStore"); }));
}

TEST_F(LazyStoreTiming, WritesFromItsWorkerWhenTheDelayHasPassed) {
  std::string writer;
  m_announced.store->OnWrite([this, &writer] {
    writer = test_platform::OwnThreadName();
    m_announced.writes.Record();
  });
  LazyPersistentStore lazy(m_announced.store, 50);
  const auto start = steady_clock::now();
  lazy.Write("one");
  lazy.Write("two");
  lazy.Write("three");
  ASSERT_TRUE(m_announced.writes.WaitFor(1));
  EXPECT_GE(m_announced.writes.Stamp(0), start + milliseconds(50));
  EXPECT_EQ(lazy.Read(), "three");
  EXPECT_EQ(writer, "DALazyStore");
  EXPECT_THAT(m_announced.store->Writes(), ElementsAre("three"));
}

TEST_F(LazyStoreTiming, WritesOnceAMinuteAfterTheFirstOfSeveralChanges) {
  HandSetClock clock(60);
  LazyPersistentStore lazy(m_announced.store, kMinute);
  lazy.Write("at 0 s");
  clock.Set(30);
  lazy.Write("at 30 s");
  clock.Set(59);
  lazy.Write("at 59 s");
  ASSERT_TRUE(clock.WaitUntilSeen());
  EXPECT_EQ(m_announced.writes.Count(), 0U) << "too early";
  clock.Set(60);
  ASSERT_TRUE(clock.WaitUntilSeen());
  EXPECT_EQ(m_announced.writes.Count(), 0U) << "at the deadline, not after it";
  clock.Set(60, 1);
  ASSERT_TRUE(m_announced.writes.WaitFor(1));
  EXPECT_EQ(lazy.Read(), "at 59 s");
  lazy.Flush();
  EXPECT_THAT(m_announced.store->Writes(), ElementsAre("at 59 s"));
}

TEST_F(LazyStoreTiming, ArmsANewDeadlineByAWriteAfterTheFlush) {
  HandSetClock clock(60);
  LazyPersistentStore lazy(m_announced.store, kMinute);
  lazy.Write("first");
  clock.Set(60, 1);
  ASSERT_TRUE(m_announced.writes.WaitFor(1));

  HandSetClock second_clock(60);
  lazy.Write("second");
  second_clock.Set(60);
  ASSERT_TRUE(second_clock.WaitUntilSeen());
  EXPECT_EQ(m_announced.writes.Count(), 1U);
  second_clock.Set(60, 1);
  ASSERT_TRUE(m_announced.writes.WaitFor(2));
  EXPECT_EQ(lazy.Read(), "second");
  EXPECT_THAT(m_announced.store->Writes(), ElementsAre("first", "second"));
}

TEST_F(LazyStoreTiming, FlushDisarmsTheDeadline) {
  HandSetClock clock(90);
  LazyPersistentStore lazy(m_announced.store, kMinute);
  lazy.Write("first");
  lazy.Flush();
  EXPECT_THAT(m_announced.store->Writes(), ElementsAre("first"));
  clock.Set(30);
  lazy.Write("second");
  clock.Set(90);
  ASSERT_TRUE(clock.WaitUntilSeen());
  EXPECT_EQ(m_announced.writes.Count(), 1U) << "the first deadline is still armed";
  clock.Set(90, 1);
  ASSERT_TRUE(m_announced.writes.WaitFor(2));
  EXPECT_EQ(lazy.Read(), "second");
  EXPECT_THAT(m_announced.store->Writes(), ElementsAre("first", "second"));
}

TEST_F(LazyStoreTiming, KeepsTheDeadlineWhenItRefusesAText) {
  HandSetClock clock(60);
  LazyPersistentStore lazy(m_announced.store, kMinute);
  lazy.Write("pending");
  clock.Set(30);
  EXPECT_THROW(lazy.Write(std::string(16384, 'x')), PersistentStore::Full);
  EXPECT_EQ(lazy.Read(), "pending");
  clock.Set(60);
  ASSERT_TRUE(clock.WaitUntilSeen());
  EXPECT_EQ(m_announced.writes.Count(), 0U);
  clock.Set(60, 1);
  ASSERT_TRUE(m_announced.writes.WaitFor(1));
  EXPECT_EQ(lazy.Read(), "pending");
  EXPECT_THAT(m_announced.store->Writes(), ElementsAre("pending"));
}

TEST_F(LazyStoreTiming, KeepsTheDeadlineWhenAFlushFails) {
  HandSetClock clock(60);
  bool fails = true;
  m_announced.store->OnWrite([this, &fails] {
    if (fails) {
      throw std::runtime_error("cannot write");
    }
    m_announced.writes.Record();
  });
  LazyPersistentStore lazy(m_announced.store, kMinute);
  lazy.Write("pending");
  clock.Set(30);  // a deadline made anew would be at 90 s
  EXPECT_THROW(lazy.Flush(), std::runtime_error);
  lazy.Capacity();  // orders the worker's later look at `fails` after this thread's change by the store's lock
  fails = false;
  clock.Set(60, 1);
  ASSERT_TRUE(m_announced.writes.WaitFor(1));
  EXPECT_EQ(lazy.Read(), "pending");
  EXPECT_THAT(m_announced.store->Writes(), ElementsAre("pending"));
}

TEST_F(LazyStoreTiming, TakesDelaysBeyondAnHour) {
  // In microseconds this delay does not fit 32 bits.
  constexpr std::uint32_t kDelay = 4295000;
  HandSetClock clock(4295);
  LazyPersistentStore lazy(m_announced.store, kDelay);
  lazy.Write("pending");
  clock.Set(4295);
  ASSERT_TRUE(clock.WaitUntilSeen());
  EXPECT_EQ(m_announced.writes.Count(), 0U);
  clock.Set(4295, 1);
  EXPECT_TRUE(m_announced.writes.WaitFor(1));
}

TEST_F(LazyStoreTiming, FlushesThroughTheVirtualFunction) {
  class CountingStore : public LazyPersistentStore {
  public:
    CountingStore(std::shared_ptr<PersistentStore> store, std::uint32_t delay)
        : LazyPersistentStore(std::move(store), delay) {}
    void Flush() override {
      LazyPersistentStore::Flush();
      flushes.Record();
    }
    EventLog flushes;
  };
  CountingStore lazy(m_announced.store, 1);
  lazy.Write("pending");
  EXPECT_TRUE(lazy.flushes.WaitFor(1));
  EXPECT_EQ(lazy.Read(), "pending");
  EXPECT_THAT(m_announced.store->Writes(), ElementsAre("pending"));
}
