// Waiting in tests: always for a condition, never for a time, and never without a bound.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace test_platform {

/// Far longer than anything that is waited for takes; reaching it is a failure.
constexpr std::chrono::seconds kWaitBound(20);

/// Waits until `condition` holds, for conditions that nobody announces. False when the bound is reached.
template <typename Condition>
bool WaitUntil(Condition condition) {
  const auto bound = std::chrono::steady_clock::now() + kWaitBound;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > bound) {
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

/// Events with the time of each. Any thread may record one; the time is the real one, even under a fake clock.
class EventLog {
public:
  void Record() {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_stamps.push_back(std::chrono::steady_clock::now());
    m_changed.notify_all();
  }

  /// Waits until there are `count` events. False when the bound is reached.
  bool WaitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(m_lock);
    return m_changed.wait_for(lock, kWaitBound, [this, count] { return m_stamps.size() >= count; });
  }

  std::size_t Count() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_stamps.size();
  }

  std::chrono::steady_clock::time_point Stamp(std::size_t index) const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_stamps.at(index);
  }

private:
  mutable std::mutex m_lock;
  std::condition_variable m_changed;
  std::vector<std::chrono::steady_clock::time_point> m_stamps;  // guarded by m_lock
};

}  // namespace test_platform
