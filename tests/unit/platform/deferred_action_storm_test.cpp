// Many threads arm and disarm one action at random. Its runs are held against a model under the owner's lock: none
// without an armed deadline, none before it, and none after the destructor.
//
// For longer: platform_test --gtest_filter='*Storm*' --gtest_repeat=100
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <boost/thread/lock_guard.hpp>
#include <chrono>
#include <memory>

#include "lib/platform/deferred_action.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/storm.h"

using bramble::DeferredAction;
using std::chrono::microseconds;
using std::chrono::steady_clock;
using test_platform::Random;

namespace {

constexpr unsigned kThreads = 4;
constexpr int kSteps = 500;
constexpr unsigned kLongestDelay = 2000;  // microseconds

class ModelledAction {
public:
  void Schedule(unsigned delay) {
    const Guard guard(m_lock);
    // The action's own deadline is this one or a little later.
    const auto deadline = steady_clock::now() + microseconds(delay);
    m_deadline = m_armed ? std::min(m_deadline, deadline) : deadline;
    m_armed = true;
    m_action->Schedule(delay);
  }

  void Cancel() {
    const Guard guard(m_lock);
    m_armed = false;
    m_action->Cancel();
  }

  bool IsArmed() {
    const Guard guard(m_lock);
    return m_armed;
  }

  /// With whatever deadline is armed.
  void Destroy() {
    m_action.reset();
    m_destroyed = true;
  }

  int Runs() {
    const Guard guard(m_lock);
    return m_runs;
  }

private:
  using Guard = boost::lock_guard<boost::recursive_mutex>;

  void Run() {
    EXPECT_FALSE(m_destroyed);
    EXPECT_TRUE(m_armed) << "ran without a deadline";
    EXPECT_GE(steady_clock::now(), m_deadline) << "ran before its deadline";
    m_armed = false;
    ++m_runs;
  }

  boost::recursive_mutex m_lock;
  bool m_armed = false;                 // guarded by m_lock
  steady_clock::time_point m_deadline;  // guarded by m_lock
  int m_runs = 0;                       // guarded by m_lock
  std::atomic<bool> m_destroyed{false};
  std::unique_ptr<DeferredAction> m_action = std::make_unique<DeferredAction>(
      m_lock, [this] { Run(); }, "Storm");
};

}  // namespace

TEST(DeferredActionStorm, RunsAfterEachDeadlineAndNeverWithoutOne) {
  const unsigned seed = test_platform::NewSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  ModelledAction action;
  test_platform::Storm(seed, kThreads, kSteps, [&](Random& random) {
    if (random() % 4 == 0) {
      action.Cancel();
    } else {
      action.Schedule(static_cast<unsigned>(random() % kLongestDelay));
    }
    if (random() % 8 == 0) {
      // Some deadlines are left to pass.
      EXPECT_TRUE(test_platform::WaitUntil([&] { return !action.IsArmed(); }));
    }
  });
  action.Schedule(0);
  EXPECT_TRUE(test_platform::WaitUntil([&] { return !action.IsArmed(); }));
  EXPECT_GT(action.Runs(), 0);
}

TEST(DeferredActionStorm, IsDestroyedInAnyState) {
  const unsigned seed = test_platform::NewSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  test_platform::Storm(seed, kThreads, kSteps / 10, [](Random& random) {
    ModelledAction action;
    for (auto calls = random() % 4; calls > 0; --calls) {
      action.Schedule(static_cast<unsigned>(random() % 200));
      if (random() % 4 == 0) {
        action.Cancel();
      }
    }
    action.Destroy();
  });
}
