#include "lib/platform/deferred_action.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "lib/platform/monotonic_time.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/threads.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/emulation.h"
#include "tests/unit/support/wrapped_calls.h"

using bramble::AddMicroseconds;
using bramble::DeferredAction;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test_platform::EventLog;
using test_platform::WaitUntil;
using wrapped_calls::FakeClock;

static_assert(!std::is_copy_constructible_v<DeferredAction>);
static_assert(!std::is_copy_assignable_v<DeferredAction>);

namespace {

constexpr std::uint64_t kMillisecond = 1000;
constexpr std::uint64_t kNever = 3600 * 1000 * kMillisecond;
constexpr milliseconds kSlack(10000);  // for an upper limit where a fault would take an hour

class DeferredActionTest : public testing::Test {
protected:
  using Lock = boost::unique_lock<boost::recursive_mutex>;

  boost::recursive_mutex m_lock;
  EventLog m_runs;
  DeferredAction m_action{m_lock, [this] { m_runs.Record(); }, "Test"};
};

}  // namespace

TEST_F(DeferredActionTest, RunsOnceWhenTheDelayHasPassed) {
  const auto start = steady_clock::now();
  m_action.Schedule(30 * kMillisecond);
  ASSERT_TRUE(m_runs.WaitFor(1));
  EXPECT_GE(m_runs.Stamp(0), start + milliseconds(30));

  const auto second_start = steady_clock::now();
  m_action.Schedule(30 * kMillisecond);
  ASSERT_TRUE(m_runs.WaitFor(2));
  EXPECT_GE(m_runs.Stamp(1), second_start + milliseconds(30)) << "ran twice for one call";
}

TEST_F(DeferredActionTest, RunsAtOnceWithoutADelay) {
  m_action.Schedule(0);
  EXPECT_TRUE(m_runs.WaitFor(1));
}

TEST_F(DeferredActionTest, KeepsAnEarlierDeadline) {
  const auto start = steady_clock::now();
  m_action.Schedule(30 * kMillisecond);
  m_action.Schedule(kNever);
  ASSERT_TRUE(m_runs.WaitFor(1));
  EXPECT_GE(m_runs.Stamp(0), start + milliseconds(30));
}

TEST_F(DeferredActionTest, AdvancesToAnEarlierDeadline) {
  m_action.Schedule(kNever);
  const auto start = steady_clock::now();
  m_action.Schedule(30 * kMillisecond);
  ASSERT_TRUE(m_runs.WaitFor(1));
  EXPECT_GE(m_runs.Stamp(0), start + milliseconds(30));
  EXPECT_LT(m_runs.Stamp(0), start + kSlack);
}

TEST_F(DeferredActionTest, CancelDisarms) {
  m_action.Schedule(10 * kMillisecond);
  m_action.Cancel();
  const auto start = steady_clock::now();
  m_action.Schedule(100 * kMillisecond);
  ASSERT_TRUE(m_runs.WaitFor(1));
  EXPECT_GE(m_runs.Stamp(0), start + milliseconds(100)) << "the cancelled deadline ran";
}

TEST_F(DeferredActionTest, CancelOfNothingDoesNothing) {
  m_action.Cancel();
  m_action.Cancel();
  m_action.Schedule(0);
  EXPECT_TRUE(m_runs.WaitFor(1));
}

TEST_F(DeferredActionTest, CancelledActionStaysIdle) {
  EventLog later;
  DeferredAction reference(
      m_lock, [&later] { later.Record(); }, "Later");
  m_action.Schedule(10 * kMillisecond);
  m_action.Cancel();
  reference.Schedule(60 * kMillisecond);
  ASSERT_TRUE(later.WaitFor(1));
  EXPECT_EQ(m_runs.Count(), 0U);
}

TEST_F(DeferredActionTest, OperationsNestUnderTheOwnersLock) {
  const Lock lock(m_lock);
  m_action.Schedule(kNever);
  m_action.Cancel();
}

TEST_F(DeferredActionTest, OperationsWaitForTheOwnersLock) {
  const std::pair<const char*, std::function<void()>> operations[] = {
      {"Schedule", [this] { m_action.Schedule(kNever); }},
      {"Cancel", [this] { m_action.Cancel(); }},
  };
  for (const auto& [name, operation] : operations) {
    SCOPED_TRACE(name);
    std::atomic<pid_t> thread{0};
    std::atomic<bool> done{false};
    Lock lock(m_lock);
    std::thread other([&thread, &done, &call = operation] {
      thread = ::gettid();
      call();
      done = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return done || (thread != 0 && test_platform::Sleeps(thread)); }));
    EXPECT_FALSE(done);
    lock.unlock();
    other.join();
  }
}

TEST(DeferredAction, CountsADeadlineAsPassedStrictlyAfterIt) {
  const timespec now = bramble::get_monotonic_time();
  FakeClock clock(now);
  boost::recursive_mutex lock;
  EventLog runs;
  DeferredAction action(
      lock, [&runs] { runs.Record(); }, "Test");
  action.Schedule(0);
  ASSERT_TRUE(clock.WaitForReads(20));
  EXPECT_EQ(runs.Count(), 0U) << "the deadline equals the present";
  clock.Set(AddMicroseconds(now, 1));
  EXPECT_TRUE(runs.WaitFor(1));
}

TEST(DeferredAction, TakesDelaysBeyondThirtyTwoBits) {
  // An hour and more in microseconds does not fit 32 bits.
  constexpr std::uint64_t kDelay = 4294967296 + 1000000;
  timespec past = bramble::get_monotonic_time();
  past.tv_sec -= 4296;
  FakeClock clock(past);
  boost::recursive_mutex lock;
  EventLog runs;
  DeferredAction action(
      lock, [&runs] { runs.Record(); }, "Test");
  action.Schedule(kDelay);
  clock.Set(AddMicroseconds(past, kDelay));
  ASSERT_TRUE(clock.WaitForReads(20));
  EXPECT_EQ(runs.Count(), 0U);
  clock.Set(AddMicroseconds(past, kDelay + 1));
  EXPECT_TRUE(runs.WaitFor(1));
}

TEST(DeferredAction, HoldsTheOwnersLockWhileTheActionRuns) {
  boost::recursive_mutex lock;
  EventLog entered;
  EventLog looked;
  EventLog left;
  DeferredAction action(
      lock,
      [&] {
        entered.Record();
        looked.WaitFor(1);
        left.Record();
      },
      "Test");
  action.Schedule(0);
  ASSERT_TRUE(entered.WaitFor(1));
  const bool locked = lock.try_lock();
  if (locked) {
    lock.unlock();
  }
  EXPECT_FALSE(locked);
  looked.Record();
  {
    const boost::unique_lock<boost::recursive_mutex> outer(lock);
    EXPECT_EQ(left.Count(), 1U);
  }
}

TEST(DeferredAction, LetsTheActionTakeTheOwnersLockAgain) {
  boost::recursive_mutex lock;
  EventLog runs;
  DeferredAction action(
      lock,
      [&] {
        const boost::unique_lock<boost::recursive_mutex> nested(lock);
        runs.Record();
      },
      "Test");
  action.Schedule(0);
  EXPECT_TRUE(runs.WaitFor(1));
}

TEST(DeferredAction, ReleasesTheOwnersLockWhileItWaits) {
  boost::recursive_mutex lock;
  DeferredAction action(
      lock, [] {}, "Test");
  const auto is_free = [&lock] {
    const bool locked = lock.try_lock();
    if (locked) {
      lock.unlock();
    }
    return locked;
  };
  EXPECT_TRUE(WaitUntil(is_free));
  action.Schedule(kNever);
  EXPECT_TRUE(WaitUntil(is_free));
}

TEST(DeferredAction, RunsTheActionOnItsWorker) {
  boost::recursive_mutex lock;
  EventLog runs;
  std::string name;
  DeferredAction action(
      lock,
      [&] {
        name = test_platform::OwnThreadName();
        runs.Record();
      },
      "Worker");
  action.Schedule(0);
  ASSERT_TRUE(runs.WaitFor(1));
  EXPECT_EQ(name, "DAWorker");
}

TEST(DeferredAction, NamesItsWorkerInFifteenBytes) {
  const struct {
    const char* name;
    const char* action;
    const char* thread;
  } rows[] = {
      {"short", "Lazy", "DALazy"},
      {"empty", "", "DA"},
      {"just fits", "1234567890123", "DA1234567890123"},
      {"one too long", "12345678901234", "DA1234567890123"},
      {"far too long", "123456789012345678901234567890", "DA1234567890123"},
      {"conversions", "%s%d%n", "DA%s%d%n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    boost::recursive_mutex lock;
    const DeferredAction action(
        lock, [] {}, row.action);
    EXPECT_TRUE(WaitUntil([&row] { return test_platform::HasThreadNamed(row.thread); }));
  }
}

TEST(DeferredAction, DestructorEndsTheWorkerAndDropsTheDeadline) {
  boost::recursive_mutex lock;
  EventLog runs;
  const auto start = steady_clock::now();
  {
    DeferredAction action(
        lock, [&runs] { runs.Record(); }, "Test");
    action.Schedule(kNever);
    ASSERT_TRUE(WaitUntil([] { return test_platform::HasThreadNamed("DATest"); }));
  }
  EXPECT_LT(steady_clock::now(), start + kSlack);
  EXPECT_EQ(runs.Count(), 0U);
  EXPECT_TRUE(WaitUntil([] { return !test_platform::HasThreadNamed("DATest"); }));
  EXPECT_TRUE(lock.try_lock());
  lock.unlock();
}

TEST(DeferredAction, DestructorRunsAnActionThatIsDue) {
  const timespec now = bramble::get_monotonic_time();
  FakeClock clock(now);
  boost::recursive_mutex lock;
  EventLog runs;
  std::optional<DeferredAction> action;
  action.emplace(
      lock,
      [&] {
        // The worker goes from here into its wait, without another look at the clock.
        if (runs.Count() == 0) {
          action->Schedule(kNever);
        }
        runs.Record();
      },
      "Test");
  action->Schedule(0);
  clock.Set(AddMicroseconds(now, 1));
  ASSERT_TRUE(runs.WaitFor(1));
  {
    // Free only while the worker waits; in real time it would wait for the whole hour.
    const boost::unique_lock<boost::recursive_mutex> guard(lock);
    clock.Set(AddMicroseconds(now, 2 * kNever));
  }
  action.reset();
  EXPECT_EQ(runs.Count(), 2U);
}

TEST(DeferredAction, DestructorWaitsForARunningAction) {
  boost::recursive_mutex lock;
  EventLog entered;
  EventLog may_leave;
  std::atomic<bool> left{false};
  std::optional<DeferredAction> action;
  action.emplace(
      lock,
      [&] {
        entered.Record();
        may_leave.WaitFor(1);
        left = true;
      },
      "Test");
  action->Schedule(0);
  ASSERT_TRUE(entered.WaitFor(1));
  std::thread releaser([&may_leave] { may_leave.Record(); });
  action.reset();
  EXPECT_TRUE(left);
  releaser.join();
}

TEST(DeferredAction, MayBeArmedByItsAction) {
  boost::recursive_mutex lock;
  EventLog runs;
  std::atomic<DeferredAction*> self{nullptr};
  DeferredAction action(
      lock,
      [&] {
        if (runs.Count() < 2) {
          self.load()->Schedule(10 * kMillisecond);
        }
        runs.Record();
      },
      "Test");
  self = &action;
  action.Schedule(0);
  ASSERT_TRUE(runs.WaitFor(3));
  EXPECT_GE(runs.Stamp(1), runs.Stamp(0));
}

TEST(DeferredAction, MayBeCancelledByItsAction) {
  boost::recursive_mutex lock;
  EventLog runs;
  std::atomic<DeferredAction*> self{nullptr};
  DeferredAction action(
      lock,
      [&] {
        self.load()->Schedule(0);
        self.load()->Cancel();
        runs.Record();
      },
      "Test");
  self = &action;
  action.Schedule(0);
  ASSERT_TRUE(runs.WaitFor(1));
  const auto start = steady_clock::now();
  action.Schedule(50 * kMillisecond);
  ASSERT_TRUE(runs.WaitFor(2));
  EXPECT_GE(runs.Stamp(1), start + milliseconds(50)) << "the cancelled deadline ran";
}

TEST(DeferredAction, SleepsUntilTheDeadline) {
  boost::recursive_mutex lock;
  EventLog runs;
  rusage idle{};
  rusage armed{};
  DeferredAction idle_action(
      lock,
      [&] {
        ::getrusage(RUSAGE_THREAD, &idle);
        runs.Record();
      },
      "Idle");
  DeferredAction armed_action(
      lock,
      [&] {
        ::getrusage(RUSAGE_THREAD, &armed);
        runs.Record();
      },
      "Armed");
  armed_action.Schedule(250 * kMillisecond);
  ASSERT_TRUE(runs.WaitFor(1));
  idle_action.Schedule(0);
  ASSERT_TRUE(runs.WaitFor(2));

  const struct {
    const char* name;
    const rusage& usage;
  } rows[] = {{"idle", idle}, {"armed", armed}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const long microseconds = row.usage.ru_utime.tv_usec + row.usage.ru_stime.tv_usec;
    EXPECT_EQ(row.usage.ru_utime.tv_sec + row.usage.ru_stime.tv_sec, 0);
    EXPECT_LT(microseconds, 50000) << "the worker spins";
    // The emulator's threads also wait for each other.
    EXPECT_LT(row.usage.ru_nvcsw, test_support::kEmulated ? 200 : 20) << "the worker polls";
  }
}

TEST(DeferredAction, EndsTheProcessWhenTheActionIsEmpty) {
  EXPECT_EXIT(
      {
        boost::recursive_mutex lock;
        DeferredAction action(lock, boost::function<void()>(), "Test");
        action.Schedule(0);
        WaitUntil([] { return false; });
        std::_Exit(0);
      },
      testing::KilledBySignal(SIGABRT), testing::HasSubstr("call to empty boost::function"));
}

TEST(DeferredAction, ThrowsWhenNoThreadCanBeStarted) {
  EXPECT_IN_CHILD({
    // No address space has room for a stack of this size.
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setstacksize(&attributes, std::numeric_limits<std::size_t>::max() / 4 * 3);
    ASSERT_EQ(::pthread_setattr_default_np(&attributes), 0);
    boost::recursive_mutex lock;
    try {
      const DeferredAction action(
          lock, [] {}, "Test");
      ADD_FAILURE() << "a thread was started";
    } catch (const std::system_error& e) {
      EXPECT_EQ(e.code().value(), EAGAIN);
    }
  });
}

TEST(DeferredAction, TakesCallsFromSeveralThreads) {
  boost::recursive_mutex lock;
  int runs = 0;  // guarded by lock
  EventLog run;
  DeferredAction action(
      lock,
      [&] {
        ++runs;
        run.Record();
      },
      "Test");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&action] {
      for (int j = 0; j < 200; ++j) {
        action.Schedule(static_cast<std::uint64_t>(j % 3));
        if (j % 7 == 0) {
          action.Cancel();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  action.Schedule(0);
  ASSERT_TRUE(run.WaitFor(1));
  const boost::unique_lock<boost::recursive_mutex> guard(lock);
  EXPECT_EQ(static_cast<std::size_t>(runs), run.Count());
}
