#include "lib/platform/deferred_action.h"

#include <pthread.h>
#include <sys/resource.h>

#include <mutex>
#include <system_error>

#include "lib/platform/monotonic_time.h"
#include "tests/unit/platform/platform_test.h"

using namespace test_platform;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

static_assert(!std::is_copy_constructible_v<DeferredAction>);
static_assert(!std::is_copy_assignable_v<DeferredAction>);

namespace {

using Lock = boost::unique_lock<boost::recursive_mutex>;

constexpr std::uint64_t kMillisecond = 1000;
constexpr std::uint64_t kNever = 3600 * 1000 * kMillisecond;

// An action that calls a hook and then records its run.
class DeferredActionTest : public testing::Test {
protected:
  bool IsLockFree() { return std::unique_lock(m_lock, std::try_to_lock).owns_lock(); }

  boost::recursive_mutex m_lock;
  EventLog m_runs;
  std::function<void()> m_hook = [] {};
  std::optional<DeferredAction> m_action{std::in_place, m_lock,
                                         [this] {
                                           m_hook();
                                           m_runs.Record();
                                         },
                                         "Test"};
};

}  // namespace

TEST_F(DeferredActionTest, RunsOnceAfterTheEarliestDeadlineThatIsNotCancelled) {
  constexpr int kCancel = -1;
  constexpr int kHour = 3600 * 1000;
  // The delays of the calls and the expected delay, in milliseconds.
  const std::tuple<const char*, std::vector<int>, int> rows[] = {
      {"one deadline", {30}, 30},
      {"no delay", {0}, 0},
      {"a later deadline does not postpone it", {30, kHour}, 30},
      {"an earlier deadline replaces it", {kHour, 30}, 30},
      {"a cancelled deadline", {10, kCancel, 100}, 100},
      {"nothing to cancel", {kCancel, kCancel, 0}, 0},
  };
  std::size_t runs = 0;
  for (const auto& [name, calls, delay] : rows) {
    SCOPED_TRACE(name);
    const auto start = steady_clock::now();
    for (const int call : calls) {
      call == kCancel ? m_action->Cancel() : m_action->Schedule(static_cast<std::uint64_t>(call) * kMillisecond);
    }
    ASSERT_TRUE(m_runs.WaitFor(++runs));
    EXPECT_GE(m_runs.Stamp(runs - 1), start + milliseconds(delay)) << "it ran too early, or twice before";
  }
}

TEST_F(DeferredActionTest, DoesNotRunAfterItHasBeenCancelled) {
  EventLog later;
  DeferredAction reference(
      m_lock, [&later] { later.Record(); }, "Later");
  m_action->Schedule(10 * kMillisecond);
  m_action->Cancel();
  reference.Schedule(60 * kMillisecond);
  ASSERT_TRUE(later.WaitFor(1));
  EXPECT_EQ(m_runs.Count(), 0U);
}

TEST_F(DeferredActionTest, SchedulesAndCancelsUnderTheLockOfItsOwner) {
  const std::tuple<const char*, std::function<void()>> rows[] = {
      {"Schedule", [this] { m_action->Schedule(kNever); }},
      {"Cancel", [this] { m_action->Cancel(); }},
  };
  for (const auto& [name, call] : rows) {
    SCOPED_TRACE(name);
    std::optional<OtherThread> other;
    const Lock lock(m_lock);
    call();  // the lock is recursive
    other.emplace(call);
    EXPECT_TRUE(other->IsBlocked());
  }
}

TEST_F(DeferredActionTest, RunsStrictlyAfterItsDeadline) {
  // The second delay has more microseconds than 32 bits hold.
  for (const std::uint64_t delay : {std::uint64_t{0}, std::uint64_t{4294967296 + 1000000}}) {
    SCOPED_TRACE(delay);
    const std::size_t runs = m_runs.Count();
    // The worker waits on the real clock, on which the deadline has already passed. So its wait returns at once.
    timespec past = get_monotonic_time();
    past.tv_sec -= static_cast<time_t>(delay / 1000000 + 1);
    FakeClock clock(past);
    m_action->Schedule(delay);
    clock.Set(AddMicroseconds(past, delay));
    ASSERT_TRUE(clock.WaitForReads(20));
    EXPECT_EQ(m_runs.Count(), runs) << "the action ran exactly at its deadline";
    clock.Set(AddMicroseconds(past, delay + 1));
    EXPECT_TRUE(m_runs.WaitFor(runs + 1));
  }
}

TEST_F(DeferredActionTest, RunsOnItsWorkerWithTheLockOfItsOwner) {
  EXPECT_TRUE(WaitUntil([this] { return IsLockFree(); })) << "no deadline";
  m_action->Schedule(kNever);
  EXPECT_TRUE(WaitUntil([this] { return IsLockFree(); })) << "before the deadline";
  EventLog entered;
  EventLog looked;
  std::string name;
  m_hook = [&] {
    const Lock nested(m_lock);
    name = OwnThreadName();
    entered.Record();
    looked.WaitFor(1);
  };
  m_action->Schedule(0);
  ASSERT_TRUE(entered.WaitFor(1));
  EXPECT_FALSE(IsLockFree());
  looked.Record();
  const Lock lock(m_lock);
  EXPECT_EQ(m_runs.Count(), 1U);
  EXPECT_EQ(name, "DATest");
}

TEST_F(DeferredActionTest, NamesItsWorkerInFifteenBytes) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"short", "Lazy", "DALazy"},
      {"empty", "", "DA"},
      {"just fits", "1234567890123", "DA1234567890123"},
      {"one too long", "12345678901234", "DA1234567890123"},
      {"far too long", "123456789012345678901234567890", "DA1234567890123"},
      {"conversions", "%s%d%n", "DA%s%d%n"},
  };
  for (const auto& [name, action_name, thread_name] : rows) {
    SCOPED_TRACE(name);
    const DeferredAction action(
        m_lock, [] {}, action_name);
    EXPECT_TRUE(WaitUntil([&thread_name = thread_name] { return HasThreadNamed(thread_name); }));
  }
}

TEST_F(DeferredActionTest, DestructorEndsTheWorkerAndDropsTheDeadline) {
  m_action->Schedule(kNever);
  ASSERT_TRUE(WaitUntil([] { return HasThreadNamed("DATest"); }));
  const auto start = steady_clock::now();
  m_action.reset();
  EXPECT_LT(steady_clock::now(), start + milliseconds(10000));
  EXPECT_EQ(m_runs.Count(), 0U);
  EXPECT_TRUE(WaitUntil([] { return !HasThreadNamed("DATest"); }));
  EXPECT_TRUE(IsLockFree());
}

TEST_F(DeferredActionTest, DestructorRunsAnActionThatIsDue) {
  const timespec now = get_monotonic_time();
  FakeClock clock(now);
  m_hook = [this] {
    // After this run, the worker waits for the far deadline and does not read the clock again.
    if (m_runs.Count() == 0) {
      m_action->Schedule(kNever);
    }
  };
  m_action->Schedule(0);
  clock.Set(AddMicroseconds(now, 1));
  ASSERT_TRUE(m_runs.WaitFor(1));
  {
    // The lock is free only while the worker waits. On the real clock, that wait lasts an hour.
    const Lock lock(m_lock);
    clock.Set(AddMicroseconds(now, 2 * kNever));
  }
  m_action.reset();
  EXPECT_EQ(m_runs.Count(), 2U);
}

TEST_F(DeferredActionTest, DestructorWaitsForARunningAction) {
  EventLog entered;
  EventLog may_leave;
  m_hook = [&] {
    entered.Record();
    may_leave.WaitFor(1);
  };
  m_action->Schedule(0);
  ASSERT_TRUE(entered.WaitFor(1));
  std::thread releaser([&may_leave] { may_leave.Record(); });
  m_action.reset();
  EXPECT_EQ(m_runs.Count(), 1U);
  releaser.join();
}

TEST_F(DeferredActionTest, MayBeScheduledAndCancelledByItsAction) {
  m_hook = [this] {
    m_action->Schedule(0);
    if (m_runs.Count() >= 2) {
      m_action->Cancel();
    }
  };
  m_action->Schedule(0);
  ASSERT_TRUE(m_runs.WaitFor(3));
  const auto start = steady_clock::now();
  m_action->Schedule(50 * kMillisecond);
  ASSERT_TRUE(m_runs.WaitFor(4));
  EXPECT_GE(m_runs.Stamp(3), start + milliseconds(50)) << "the cancelled deadline ran";
}

TEST_F(DeferredActionTest, SleepsUntilTheDeadline) {
  rusage idle{};
  rusage armed{};
  DeferredAction idle_action(
      m_lock,
      [&] {
        ::getrusage(RUSAGE_THREAD, &idle);
        m_runs.Record();
      },
      "Idle");
  m_hook = [&armed] { ::getrusage(RUSAGE_THREAD, &armed); };
  m_action->Schedule(250 * kMillisecond);
  ASSERT_TRUE(m_runs.WaitFor(1));
  idle_action.Schedule(0);
  ASSERT_TRUE(m_runs.WaitFor(2));
  for (const rusage* usage : {&idle, &armed}) {
    EXPECT_EQ(usage->ru_utime.tv_sec + usage->ru_stime.tv_sec, 0);
    EXPECT_LT(usage->ru_utime.tv_usec + usage->ru_stime.tv_usec, 50000) << "the worker spins";
    // The threads of the emulator also wait for each other.
    EXPECT_LT(usage->ru_nvcsw, kEmulated ? 200 : 20) << "the worker polls";
  }
}

TEST(DeferredAction, EndsTheProcessIfTheActionIsEmpty) {
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

TEST(DeferredAction, ThrowsIfNoThreadCanBeStarted) {
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
