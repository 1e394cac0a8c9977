#include "lib/platform/condition_variable.h"

#include <boost/thread/recursive_mutex.hpp>
#include <mutex>

#include "lib/platform/monotonic_time.h"
#include "tests/unit/platform/platform_test.h"

using namespace test_platform;

namespace {

// Spurious wake-ups are rare. A wait that does not sleep causes many.
constexpr int kMostWakings = 10;

}  // namespace

template <typename LockType>
class ConditionVariable : public testing::Test {
protected:
  using Lock = LockType;

  void Notify() {
    const Lock lock(m_mutex);
    m_flag = true;
    m_condition.notify_all();
  }

  void ExpectHeld(const Lock& lock) {
    EXPECT_TRUE(lock.owns_lock());
    std::thread([this] { EXPECT_FALSE(std::unique_lock(m_mutex, std::try_to_lock)); }).join();
  }

  typename Lock::mutex_type m_mutex;
  condition_variable_any m_condition;
  bool m_flag = false;
};

using Locks = testing::Types<std::unique_lock<std::mutex>, boost::unique_lock<boost::recursive_mutex>>;
TYPED_TEST_SUITE(ConditionVariable, Locks, );

TYPED_TEST(ConditionVariable, WakesEveryWaiter) {
  int waiting = 0;
  int woken = 0;
  std::vector<std::thread> waiters;
  for (int i = 0; i < 3; ++i) {
    waiters.emplace_back([&] {
      typename TestFixture::Lock lock(this->m_mutex);
      ++waiting;
      while (!this->m_flag) {
        this->m_condition.wait(lock);
      }
      this->ExpectHeld(lock);
      ++woken;
    });
  }
  EXPECT_TRUE(WaitUntil([&] {
    // Gets the lock only because a wait releases it.
    const typename TestFixture::Lock lock(this->m_mutex);
    return waiting == 3;
  }));
  this->Notify();
  for (std::thread& waiter : waiters) {
    waiter.join();
  }
  EXPECT_EQ(woken, 3);
}

TYPED_TEST(ConditionVariable, SleepsUntilItIsNotifiedBeforeTheDeadline) {
  for (const std::uint64_t microseconds : {std::uint64_t{30000000}, std::numeric_limits<std::uint64_t>::max()}) {
    SCOPED_TRACE(microseconds);
    const timespec start = get_monotonic_time();
    typename TestFixture::Lock lock(this->m_mutex);
    std::thread notifier([this, waiting = ::gettid()] {
      EXPECT_TRUE(WaitUntil([waiting] { return Sleeps(waiting); }));
      this->Notify();
    });
    int wakings = 0;
    for (this->m_flag = false; !this->m_flag; ++wakings) {
      this->m_condition.wait_until(lock, AddMicroseconds(start, microseconds));
    }
    EXPECT_LE(wakings, kMostWakings);
    EXPECT_TRUE(IsBefore(get_monotonic_time(), AddMicroseconds(start, 20000000)));
    notifier.join();
  }
}

TYPED_TEST(ConditionVariable, SleepsUntilTheDeadlineOnTheMonotonicClock) {
  typename TestFixture::Lock lock(this->m_mutex);
  const timespec deadline = AddMicroseconds(get_monotonic_time(), 30000);
  int wakings = 0;
  for (; IsBefore(get_monotonic_time(), deadline); ++wakings) {
    this->m_condition.wait_until(lock, deadline);
  }
  EXPECT_GE(wakings, 1);
  EXPECT_LE(wakings, kMostWakings);
  this->ExpectHeld(lock);
}

TYPED_TEST(ConditionVariable, ReturnsAtOnceIfTheDeadlineHasPassed) {
  typename TestFixture::Lock lock(this->m_mutex);
  const timespec start = get_monotonic_time();
  this->m_condition.wait_until(lock, timespec{0, 1});
  this->m_condition.wait_until(lock, start);
  EXPECT_TRUE(IsBefore(get_monotonic_time(), AddMicroseconds(start, 10000000)));
  EXPECT_TRUE(lock.owns_lock());
}
