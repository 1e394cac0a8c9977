#include "lib/platform/condition_variable.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/thread/recursive_mutex.hpp>
#include <cstdint>
#include <limits>
#include <mutex>
#include <thread>
#include <vector>

#include "lib/platform/monotonic_time.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/threads.h"

using bramble::AddMicroseconds;
using bramble::get_monotonic_time;
using bramble::IsBefore;

namespace {

// For no reason at times; but a wait that does not wait gives many.
constexpr int kMostWakings = 10;

struct StandardLock {
  using Mutex = std::mutex;
  using Lock = std::unique_lock<std::mutex>;
};

struct RecursiveLock {
  using Mutex = boost::recursive_mutex;
  using Lock = boost::unique_lock<boost::recursive_mutex>;
};

template <typename Mutex>
bool IsFreeForOthers(Mutex& mutex) {
  bool is_free = false;
  std::thread([&] {
    is_free = mutex.try_lock();
    if (is_free) {
      mutex.unlock();
    }
  }).join();
  return is_free;
}

}  // namespace

template <typename Kind>
class ConditionVariable : public testing::Test {
protected:
  using Lock = typename Kind::Lock;

  typename Kind::Mutex m_mutex;
  bramble::condition_variable_any m_condition;
  bool m_flag = false;
};

using LockKinds = testing::Types<StandardLock, RecursiveLock>;
TYPED_TEST_SUITE(ConditionVariable, LockKinds, );

TYPED_TEST(ConditionVariable, WaitsUntilItIsNotified) {
  typename TestFixture::Lock lock(this->m_mutex);
  std::thread notifier([this] {
    // Gets the lock only because the wait releases it.
    const typename TestFixture::Lock notifier_lock(this->m_mutex);
    this->m_flag = true;
    this->m_condition.notify_all();
  });
  while (!this->m_flag) {
    this->m_condition.wait(lock);
  }
  EXPECT_TRUE(lock.owns_lock());
  EXPECT_FALSE(IsFreeForOthers(this->m_mutex));
  notifier.join();
}

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
      ++woken;
    });
  }
  EXPECT_TRUE(test_platform::WaitUntil([&] {
    const typename TestFixture::Lock lock(this->m_mutex);
    return waiting == 3;
  }));
  {
    const typename TestFixture::Lock lock(this->m_mutex);
    this->m_flag = true;
    this->m_condition.notify_all();
  }
  for (std::thread& waiter : waiters) {
    waiter.join();
  }
  EXPECT_EQ(woken, 3);
}

TYPED_TEST(ConditionVariable, WaitsForADeadlineThatNeverComesUntilItIsNotified) {
  const timespec deadline = AddMicroseconds(get_monotonic_time(), std::numeric_limits<std::uint64_t>::max());
  typename TestFixture::Lock lock(this->m_mutex);
  std::thread notifier([this, waiting = ::gettid()] {
    EXPECT_TRUE(test_platform::WaitUntil([waiting] { return test_platform::Sleeps(waiting); }));
    const typename TestFixture::Lock notifier_lock(this->m_mutex);
    this->m_flag = true;
    this->m_condition.notify_all();
  });
  int wakings = 0;
  while (!this->m_flag) {
    this->m_condition.wait_until(lock, deadline);
    ++wakings;
  }
  EXPECT_LE(wakings, kMostWakings);
  notifier.join();
}

TYPED_TEST(ConditionVariable, WaitsForADeadlineOnTheMonotonicClock) {
  typename TestFixture::Lock lock(this->m_mutex);
  const timespec deadline = AddMicroseconds(get_monotonic_time(), 30000);
  int wakings = 0;
  while (IsBefore(get_monotonic_time(), deadline)) {
    this->m_condition.wait_until(lock, deadline);
    ++wakings;
  }
  EXPECT_GE(wakings, 1);
  EXPECT_LE(wakings, kMostWakings) << "it must sleep, not spin";
  EXPECT_TRUE(lock.owns_lock());
  EXPECT_FALSE(IsFreeForOthers(this->m_mutex));
}

TYPED_TEST(ConditionVariable, ReturnsAtOnceWhenTheDeadlineHasPassed) {
  typename TestFixture::Lock lock(this->m_mutex);
  const timespec start = get_monotonic_time();
  this->m_condition.wait_until(lock, timespec{0, 1});
  this->m_condition.wait_until(lock, start);
  EXPECT_TRUE(IsBefore(get_monotonic_time(), AddMicroseconds(start, 10000000)));
  EXPECT_TRUE(lock.owns_lock());
}

TYPED_TEST(ConditionVariable, IsNotifiedBeforeTheDeadline) {
  typename TestFixture::Lock lock(this->m_mutex);
  const timespec start = get_monotonic_time();
  std::thread notifier([this] {
    const typename TestFixture::Lock notifier_lock(this->m_mutex);
    this->m_flag = true;
    this->m_condition.notify_all();
  });
  while (!this->m_flag) {
    this->m_condition.wait_until(lock, AddMicroseconds(start, 30000000));
  }
  EXPECT_TRUE(IsBefore(get_monotonic_time(), AddMicroseconds(start, 20000000)));
  notifier.join();
}
