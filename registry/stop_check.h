// Abandons long work: an import of tens of megabytes must not delay the end of the daemon.
#pragma once

#include <cstddef>
#include <functional>
#include <stdexcept>
#include <utility>

/// The work has been abandoned.
class WorkStopped : public std::runtime_error {
public:
  WorkStopped() : std::runtime_error("ledgerd is stopping") {}
};

/// Calls a predicate from time to time to find out whether to continue. Use one object for each piece of work, on one
/// thread.
class StopCheck {
public:
  /// Without a predicate the work is never abandoned.
  explicit StopCheck(std::function<bool()> is_requested = nullptr) : m_is_requested(std::move(is_requested)) {}

  /// Throws WorkStopped if the predicate returns true.
  void Ask() const {
    if (m_is_requested && m_is_requested()) {
      throw WorkStopped();
    }
  }

  /// Called for each small step, of which there can be millions. Calls Ask at every 65536th step.
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
