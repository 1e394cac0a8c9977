#include "tests/unit/platform/wrapped_process_calls.h"

#include <pthread.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "lib/platform/monotonic_time.h"
#include "tests/unit/support/wrapped_calls.h"

// The linker replaces calls of F by calls of __wrap_F. __real_F is the original function.
extern "C" {
int __real_chdir(const char* path);
int __real_fchmod(int fd, mode_t mode);
pid_t __real_fork();
int __real_kill(pid_t pid, int signal);
int __real_prctl(int option, unsigned long second, unsigned long third, unsigned long fourth, unsigned long fifth);
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_sigmask(int how, const sigset_t* set, sigset_t* old);
pid_t __real_setsid();
int __real_sigtimedwait(const sigset_t* set, siginfo_t* info, const timespec* timeout);
int __real_usleep(useconds_t microseconds);
}

namespace wrapped_calls {
namespace {

struct Fault {
  ProcessCall call;
  int error_number;
  int successes;
};

struct Process {
  Process(int count, timespec start) : signals(count), now(start), clock(start) {}

  int signals;
  timespec now;
  FakeClock clock;
  std::vector<std::string> calls;
};

std::optional<Fault> g_fault;
std::function<int(const sigset_t&, const timespec&)> g_wait;
std::optional<Process> g_process;

bool Fails(ProcessCall call) {
  if (!g_fault || g_fault->call != call || g_fault->successes-- > 0) {
    return false;
  }
  errno = g_fault->error_number;
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
  g_fault = {call, error_number, successes};
}
FailingCall::~FailingCall() { g_fault.reset(); }

ReplacedWait::ReplacedWait(std::function<int(const sigset_t&, const timespec&)> replacement) {
  g_wait = std::move(replacement);
}
ReplacedWait::~ReplacedWait() { g_wait = nullptr; }

FakeProcess::FakeProcess(int signals, timespec start) { g_process.emplace(signals, start); }
FakeProcess::~FakeProcess() { g_process.reset(); }
const std::vector<std::string>& FakeProcess::Calls() const { return g_process->calls; }

}  // namespace wrapped_calls

using namespace wrapped_calls;

extern "C" {

int __wrap_chdir(const char* path) { return Fails(ProcessCall::Chdir) ? -1 : __real_chdir(path); }

int __wrap_fchmod(int fd, mode_t mode) { return Fails(ProcessCall::ChangeMode) ? -1 : __real_fchmod(fd, mode); }

pid_t __wrap_fork() { return Fails(ProcessCall::Fork) ? -1 : __real_fork(); }

int __wrap_kill(pid_t pid, int signal) {
  if (g_process) {
    return KillFakeProcess(pid, signal);
  }
  return Fails(ProcessCall::Kill) ? -1 : __real_kill(pid, signal);
}

int __wrap_prctl(int option, unsigned long second, unsigned long third, unsigned long fourth, unsigned long fifth) {
  return Fails(ProcessCall::Prctl) ? -1 : __real_prctl(option, second, third, fourth, fifth);
}

// These two return their error. They do not set errno.
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  return Fails(ProcessCall::MutexLock) ? std::exchange(errno, 0) : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_sigmask(int how, const sigset_t* set, sigset_t* old) {
  return Fails(ProcessCall::SignalMask) ? std::exchange(errno, 0) : __real_pthread_sigmask(how, set, old);
}

pid_t __wrap_setsid() { return Fails(ProcessCall::SetSession) ? -1 : __real_setsid(); }

int __wrap_sigtimedwait(const sigset_t* set, siginfo_t* info, const timespec* timeout) {
  return g_wait ? g_wait(*set, *timeout) : __real_sigtimedwait(set, info, timeout);
}

int __wrap_usleep(useconds_t microseconds) {
  if (!g_process) {
    return __real_usleep(microseconds);
  }
  g_process->calls.push_back("usleep " + std::to_string(microseconds));
  g_process->now = bramble::AddMicroseconds(g_process->now, microseconds);
  g_process->clock.Set(g_process->now);
  return 0;
}

}  // extern "C"
