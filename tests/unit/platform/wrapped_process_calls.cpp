#include "tests/unit/platform/wrapped_process_calls.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

#include "lib/platform/monotonic_time.h"
#include "tests/unit/support/wrapped_calls.h"

// The linker's names for the double and for the function behind it.
extern "C" {
int __real_chdir(const char* path);
int __real_fchmod(int fd, mode_t mode);
pid_t __real_fork();
int __real_kill(pid_t pid, int signal);
int __real_prctl(int option, unsigned long second, unsigned long third, unsigned long fourth, unsigned long fifth);
int __real_pthread_sigmask(int how, const sigset_t* set, sigset_t* old);
pid_t __real_setsid();
int __real_sigtimedwait(const sigset_t* set, siginfo_t* info, const timespec* timeout);
int __real_usleep(useconds_t microseconds);

int __wrap_chdir(const char* path);
int __wrap_fchmod(int fd, mode_t mode);
pid_t __wrap_fork();
int __wrap_kill(pid_t pid, int signal);
int __wrap_prctl(int option, unsigned long second, unsigned long third, unsigned long fourth, unsigned long fifth);
int __wrap_pthread_sigmask(int how, const sigset_t* set, sigset_t* old);
pid_t __wrap_setsid();
int __wrap_sigtimedwait(const sigset_t* set, siginfo_t* info, const timespec* timeout);
int __wrap_usleep(useconds_t microseconds);
}

namespace wrapped_calls {
namespace {

struct Fault {
  bool active;
  ProcessCall call;
  int error_number;
  int successes;
};

Fault g_fault{};

std::function<int(const sigset_t&, const timespec&)> g_wait;

struct Process {
  explicit Process(int count, timespec start) : signals(count), now(start), clock(start) {}

  int signals;
  timespec now;
  FakeClock clock;
  std::vector<std::string> calls;
};

std::unique_ptr<Process> g_process;

bool Fails(ProcessCall call) {
  if (!g_fault.active || g_fault.call != call || g_fault.successes-- > 0) {
    return false;
  }
  errno = g_fault.error_number;
  return true;
}

int KillFakeProcess(pid_t pid, int signal) {
  g_process->calls.push_back("kill " + std::to_string(pid) + " " + std::to_string(signal));
  if (g_process->signals-- > 0) {
    return 0;
  }
  errno = ESRCH;
  return -1;
}

}  // namespace

FailingCall::FailingCall(ProcessCall call, int error_number, int successes) {
  g_fault = {true, call, error_number, successes};
}
FailingCall::~FailingCall() { g_fault.active = false; }

ReplacedWait::ReplacedWait(std::function<int(const sigset_t&, const timespec&)> replacement) {
  g_wait = std::move(replacement);
}
ReplacedWait::~ReplacedWait() { g_wait = nullptr; }

FakeProcess::FakeProcess(int signals, timespec start) { g_process = std::make_unique<Process>(signals, start); }
FakeProcess::~FakeProcess() { g_process.reset(); }
const std::vector<std::string>& FakeProcess::Calls() const { return g_process->calls; }

}  // namespace wrapped_calls

using wrapped_calls::Fails;
using wrapped_calls::ProcessCall;

int __wrap_chdir(const char* path) { return Fails(ProcessCall::Chdir) ? -1 : __real_chdir(path); }

int __wrap_fchmod(int fd, mode_t mode) { return Fails(ProcessCall::ChangeMode) ? -1 : __real_fchmod(fd, mode); }

pid_t __wrap_fork() { return Fails(ProcessCall::Fork) ? -1 : __real_fork(); }

int __wrap_kill(pid_t pid, int signal) {
  if (wrapped_calls::g_process) {
    return wrapped_calls::KillFakeProcess(pid, signal);
  }
  return Fails(ProcessCall::Kill) ? -1 : __real_kill(pid, signal);
}

int __wrap_prctl(int option, unsigned long second, unsigned long third, unsigned long fourth, unsigned long fifth) {
  return Fails(ProcessCall::Prctl) ? -1 : __real_prctl(option, second, third, fourth, fifth);
}

int __wrap_pthread_sigmask(int how, const sigset_t* set, sigset_t* old) {
  if (!Fails(ProcessCall::SignalMask)) {
    return __real_pthread_sigmask(how, set, old);
  }
  // The error is the result; errno is none of this call's.
  return std::exchange(errno, 0);
}

pid_t __wrap_setsid() { return Fails(ProcessCall::SetSession) ? -1 : __real_setsid(); }

int __wrap_sigtimedwait(const sigset_t* set, siginfo_t* info, const timespec* timeout) {
  return wrapped_calls::g_wait ? wrapped_calls::g_wait(*set, *timeout) : __real_sigtimedwait(set, info, timeout);
}

int __wrap_usleep(useconds_t microseconds) {
  const auto& process = wrapped_calls::g_process;
  if (!process) {
    return __real_usleep(microseconds);
  }
  process->calls.push_back("usleep " + std::to_string(microseconds));
  process->now = bramble::AddMicroseconds(process->now, microseconds);
  process->clock.Set(process->now);
  return 0;
}
