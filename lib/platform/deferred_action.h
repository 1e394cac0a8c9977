// One action that a worker thread of its own runs when a deadline on the monotonic clock has passed.
#pragma once

#include <boost/function.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <cstdint>
#include <ctime>
#include <string>
#include <thread>

#include "lib/platform/condition_variable.h"

namespace bramble {

/// The state is guarded by the owner's lock, which every operation takes and which the worker holds while it runs the
/// action: so the action may touch the owner, and nobody who holds the lock sees it half done.
class DeferredAction {
public:
  /// Starts the worker, named "DA<name>" (the kernel keeps 15 bytes). `owner_lock` must outlive this object and must
  /// not be held by a caller of the destructor. Throws std::system_error if no thread can be started.
  DeferredAction(boost::recursive_mutex& owner_lock, boost::function<void()> action, const std::string& name);

  /// Stops and joins the worker. Waits for an action that is running, and for one whose deadline has passed while the
  /// worker waited for it. A deadline that has not passed is dropped. The worker itself must not destroy the object.
  ~DeferredAction();

  DeferredAction(const DeferredAction&) = delete;
  DeferredAction& operator=(const DeferredAction&) = delete;

  /// Arms the action for `delay` microseconds from now. An earlier deadline that is already armed stays, so a stream of
  /// calls does not postpone the action.
  void Schedule(std::uint64_t delay);

  /// Disarms the action. One that is running goes on.
  void Cancel();

private:
  void Run(const std::string& thread_name);

  boost::recursive_mutex& m_owner_lock;
  condition_variable_any m_wake;
  const boost::function<void()> m_action;
  bool m_stop = false;       // guarded by m_owner_lock
  bool m_scheduled = false;  // guarded by m_owner_lock
  timespec m_deadline{};     // guarded by m_owner_lock
  std::thread m_worker;      // last, so that all it uses exists when it starts
};

}  // namespace bramble
