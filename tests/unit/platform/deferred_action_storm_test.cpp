// Threads schedule and cancel one action at random. Its runs are compared with a model under the lock of the owner: no
// run without a deadline, before it, or after the destructor.
//
// For longer: platform_test --gtest_filter='*Storm*' --gtest_repeat=100
#include <algorithm>
#include <atomic>
#include <boost/thread/lock_guard.hpp>
#include <chrono>
#include <memory>

#include "lib/platform/deferred_action.h"
#include "tests/unit/platform/platform_test.h"
#include "tests/unit/platform/storm.h"

using namespace test_platform;
using std::chrono::steady_clock;

namespace {

constexpr int kSteps = 500;
constexpr unsigned kLongestDelay = 2000;  // microseconds

class ModelledAction {
public:
  void Schedule(unsigned delay) {
    const Guard guard(m_lock);
    // The deadline of the action is this one or a little later.
    const auto deadline = steady_clock::now() + std::chrono::microseconds(delay);
    m_deadline = m_armed ? std::min(m_deadline, deadline) : deadline;
    m_armed = true;
    m_action->Schedule(delay);
  }

  void Cancel() {
    const Guard guard(m_lock);
    m_armed = false;
    m_action->Cancel();
  }

  bool WaitForRun() {
    return WaitUntil([this] {
      const Guard guard(m_lock);
      return !m_armed;
    });
  }

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
    EXPECT_TRUE(m_armed) << "it ran without a deadline";
    EXPECT_GE(steady_clock::now(), m_deadline) << "it ran before its deadline";
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
  ModelledAction action;
  Storm(kSteps, [&](Random& random) {
    if (random() % 4 == 0) {
      action.Cancel();
    } else {
      action.Schedule(static_cast<unsigned>(random() % kLongestDelay));
    }
    if (random() % 8 == 0) {
      EXPECT_TRUE(action.WaitForRun());
    }
  });
  action.Schedule(0);
  EXPECT_TRUE(action.WaitForRun());
  EXPECT_GT(action.Runs(), 0);
}

TEST(DeferredActionStorm, IsDestroyedInAnyState) {
  Storm(kSteps / 10, [](Random& random) {
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
