// A condition variable that works with any kind of lock and takes deadlines on the monotonic clock.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <ctime>

namespace bramble {

/// The condition variable of the standard library, always with its steady clock, which is CLOCK_MONOTONIC. Changes of
/// the wall clock do not affect a wait. The class has an internal mutex, which is the last one in the lock order.
class condition_variable_any {
public:
  /// Both may wake spuriously; callers must test their condition in a loop. The caller must hold `lock` exactly once.
  /// It is released during the wait and held again afterwards.
  template <typename Lock>
  void wait(Lock& lock) {
    m_condition.wait(lock);
  }

  template <typename Lock>
  void wait_until(Lock& lock, const timespec& deadline) {
    // The steady clock counts nanoseconds in 64 bits. They overflow after 292 years.
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
