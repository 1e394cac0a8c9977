// A condition variable that waits with any kind of lock, to a deadline on the monotonic clock.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <ctime>

namespace bramble {

/// The standard library's condition variable with the clock fixed: its steady clock is CLOCK_MONOTONIC, and waiting on
/// it does not detour through the wall clock. It has an internal mutex of its own, which is the last lock to be taken.
class condition_variable_any {
public:
  /// Both wake up for no reason at times; callers test their condition in a loop. `lock` must be held once; it is
  /// released during the wait and held again afterwards.
  template <typename Lock>
  void wait(Lock& lock) {
    m_condition.wait(lock);
  }

  template <typename Lock>
  void wait_until(Lock& lock, const timespec& deadline) {
    // The steady clock counts nanoseconds in 64 bits, which end after 292 years.
    constexpr auto kLastSecond = std::chrono::floor<std::chrono::seconds>(std::chrono::nanoseconds::max());
    const auto seconds = std::min(std::chrono::seconds(deadline.tv_sec), kLastSecond - std::chrono::seconds(1));
    const auto since_boot = seconds + std::chrono::nanoseconds(deadline.tv_nsec);
    m_condition.wait_until(lock, std::chrono::steady_clock::time_point(since_boot));
  }

  void notify_all() noexcept { m_condition.notify_all(); }

private:
  std::condition_variable_any m_condition;
};

}  // namespace bramble
