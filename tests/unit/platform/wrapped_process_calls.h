// Doubles of the calls that make, name, detach and end processes, put in front of the C library's by the linker. Each
// double is active while its object lives, also in processes that are forked meanwhile; otherwise calls pass through.
#pragma once

#include <signal.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace wrapped_calls {

enum class ProcessCall { ChangeMode, Chdir, Fork, Kill, Prctl, SetSession, SignalMask };

/// While it lives, the call fails with `error_number`, but for the first `successes` calls of the process.
class FailingCall {
public:
  FailingCall(ProcessCall call, int error_number, int successes = 0);
  ~FailingCall();
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;
};

/// While it lives, sigtimedwait calls the replacement instead.
class ReplacedWait {
public:
  explicit ReplacedWait(std::function<int(const sigset_t&, const timespec&)> replacement);
  ~ReplacedWait();
  ReplacedWait(const ReplacedWait&) = delete;
  ReplacedWait& operator=(const ReplacedWait&) = delete;
};

/// While it lives, kill goes to a process that exists only here, and usleep passes no time but that of a clock which
/// stands still otherwise.
class FakeProcess {
public:
  /// The process takes `signals` signals, probes included, and is then gone. `start` is the time on the clock.
  explicit FakeProcess(int signals, timespec start = {1000, 0});
  ~FakeProcess();
  FakeProcess(const FakeProcess&) = delete;
  FakeProcess& operator=(const FakeProcess&) = delete;

  /// The calls in order, such as "kill 77 15" and "usleep 10000".
  const std::vector<std::string>& Calls() const;
};

}  // namespace wrapped_calls
