// How tests wait: for a condition, never for a time, and always with a limit.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace test_platform {

/// Far longer than any wait takes. It is a failure if it is reached.
constexpr std::chrono::seconds kWaitBound(20);

/// Tests `condition` until it is true. Returns false if that takes longer than the limit.
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

/// Events with their times. Any thread may record one. A fake clock does not affect the times.
class EventLog {
public:
  void Record() {
    const std::lock_guard<std::mutex> guard(m_lock);
    m_stamps.push_back(std::chrono::steady_clock::now());
    m_changed.notify_all();
  }

  /// Waits until there are `count` events. Returns false if that takes longer than the limit.
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
