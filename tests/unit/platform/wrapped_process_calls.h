// Doubles of calls that start, name, detach and end processes, and of the lock of a mutex. The linker puts them in
// place of the C library's functions. A double is active while its object exists, also in processes that are forked
// meanwhile.
#pragma once

#include <signal.h>

#include <boost/core/noncopyable.hpp>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace wrapped_calls {

enum class ProcessCall { ChangeMode, Chdir, Fork, Kill, MutexLock, Prctl, SetSession, SignalMask };

/// The call fails with `error_number`, except the first `successes` calls of the process.
class FailingCall : boost::noncopyable {
public:
  FailingCall(ProcessCall call, int error_number, int successes = 0);
  ~FailingCall();
};

/// sigtimedwait calls the replacement.
class ReplacedWait : boost::noncopyable {
public:
  explicit ReplacedWait(std::function<int(const sigset_t&, const timespec&)> replacement);
  ~ReplacedWait();
};

/// kill sends its signals to a process that exists only here. usleep returns at once and advances the clock, which
/// otherwise does not advance.
class FakeProcess : boost::noncopyable {
public:
  /// The process ends after `signals` signals. Signal 0 counts too. `start` is the time on the clock.
  explicit FakeProcess(int signals, timespec start = {1000, 0});
  ~FakeProcess();

  /// The calls in order, such as "kill 77 15" and "usleep 10000".
  const std::vector<std::string>& Calls() const;
};

}  // namespace wrapped_calls
