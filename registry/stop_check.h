// A way out of work that takes long: an import of tens of megabytes must not delay the end of the daemon.
#pragma once

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <utility>

/// The work has been given up.
class WorkStopped : public std::runtime_error {
public:
  WorkStopped() : std::runtime_error("ledgerd is stopping") {}
};

/// Asks a predicate now and then whether to go on. One object per piece of work, used by one thread.
class StopCheck {
public:
  /// Without a predicate the work is never stopped.
  explicit StopCheck(std::function<bool()> is_requested = nullptr) : m_is_requested(std::move(is_requested)) {}

  /// Throws WorkStopped if the predicate says so.
  void Ask() const {
    if (m_is_requested && m_is_requested()) {
      throw WorkStopped();
    }
  }

  /// Called once per small step, of which there can be millions; asks at every 65536th.
  void Step() {
    if (++m_steps % kStepsBetween == 0) {
      Ask();
    }
  }

private:
  static constexpr std::size_t kStepsBetween = 65536;

  std::function<bool()> m_is_requested;
  std::size_t m_steps = 0;
};
