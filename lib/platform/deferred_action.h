// An action that runs on its own worker thread once a deadline on the monotonic clock has passed.
#pragma once

#include <boost/function.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <cstdint>
#include <ctime>
#include <string>
#include <thread>

#include "lib/platform/condition_variable.h"

namespace bramble {

/// The owner's lock guards the state. Every operation takes it, and the worker holds it while it runs the action. The
/// action may therefore use the owner, and no other holder of the lock sees it half done.
class DeferredAction {
public:
  /// Starts the worker thread, named "DA<name>" (the kernel keeps 15 bytes). `owner_lock` must outlive this object, and
  /// a caller of the destructor must not hold it. Throws std::system_error if no thread can be started.
  DeferredAction(boost::recursive_mutex& owner_lock, boost::function<void()> action, const std::string& name);

  /// Stops and joins the worker. An action that is running, or whose deadline has passed, is completed first. A
  /// deadline that has not passed yet is dropped. The worker itself must not destroy the object.
  ~DeferredAction();

  DeferredAction(const DeferredAction&) = delete;
  DeferredAction& operator=(const DeferredAction&) = delete;

  /// Sets the deadline to `delay` microseconds from now, unless an earlier deadline is already set. Repeated calls
  /// therefore do not postpone the action.
  void Schedule(std::uint64_t delay);

  /// Cancels the deadline. An action that is already running continues.
  void Cancel();

private:
  void Run(const std::string& thread_name);

  boost::recursive_mutex& m_owner_lock;
  condition_variable_any m_wake;
  const boost::function<void()> m_action;
  bool m_stop = false;       // guarded by m_owner_lock
  bool m_scheduled = false;  // guarded by m_owner_lock
  timespec m_deadline{};     // guarded by m_owner_lock
  std::thread m_worker;      // last: it uses all members above as soon as it starts
};

}  // namespace bramble
