#include "tests/unit/support/wrapped_calls.h"

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <limits>
#include <mutex>
#include <utility>

#include "tests/unit/platform/bounded_wait.h"

// The linker replaces calls of F by calls of __wrap_F. __real_F is the original function.
extern "C" {
int __real_clock_gettime(clockid_t clock, timespec* time);
int __real_tcdrain(int fd);
ssize_t __real_write(int fd, const void* buffer, std::size_t length);
int __real_vsnprintf(char* buffer, std::size_t size, const char* format, va_list args);
int __real___vsnprintf_chk(char* buffer, std::size_t size, int flag, std::size_t known, const char* format,
                           va_list args);
off_t __real_lseek(int fd, off_t offset, int whence);
off_t __real_lseek64(int fd, off_t offset, int whence);
}

namespace wrapped_calls {
namespace {

enum class ClockMode { Real, Fake, Failing };

std::atomic<ClockMode> g_clock_mode{ClockMode::Real};
std::mutex g_clock_lock;
std::condition_variable g_clock_read;
timespec g_clock_now;    // guarded by g_clock_lock
long g_clock_reads = 0;  // guarded by g_clock_lock

int g_drain_record = -1;
std::function<long(int, const void*, std::size_t)> g_write;
std::atomic<int> g_formatting_passes{0};
std::atomic<int> g_failing_pass{std::numeric_limits<int>::max()};
std::int64_t g_seek_size = -1;
int g_seek_back_error = 0;

bool FormattingFails() { return ++g_formatting_passes >= g_failing_pass; }

off_t Seek(int fd, off_t offset, int whence, off_t (*real)(int, off_t, int)) {
  if (whence == SEEK_END && g_seek_size >= 0) {
    return static_cast<off_t>(g_seek_size);
  }
  if (whence == SEEK_SET && g_seek_back_error != 0) {
    errno = g_seek_back_error;
    return -1;
  }
  return real(fd, offset, whence);
}

}  // namespace

FakeClock::FakeClock(timespec now) {
  Set(now);
  g_clock_mode = ClockMode::Fake;
}

FakeClock::~FakeClock() { g_clock_mode = ClockMode::Real; }

void FakeClock::Set(timespec now) {
  const std::lock_guard<std::mutex> guard(g_clock_lock);
  g_clock_now = now;
}

bool FakeClock::WaitForReads(int count) {
  std::unique_lock<std::mutex> lock(g_clock_lock);
  const long target = g_clock_reads + count;
  return g_clock_read.wait_for(lock, test_platform::kWaitBound, [target] { return g_clock_reads >= target; });
}

FailingClock::FailingClock() { g_clock_mode = ClockMode::Failing; }
FailingClock::~FailingClock() { g_clock_mode = ClockMode::Real; }

RecordedDrains::RecordedDrains(int descriptor) { g_drain_record = descriptor; }
RecordedDrains::~RecordedDrains() { g_drain_record = -1; }

ReplacedWrite::ReplacedWrite(std::function<long(int, const void*, std::size_t)> replacement) {
  g_write = std::move(replacement);
}
ReplacedWrite::~ReplacedWrite() { g_write = nullptr; }

CountedFormatting::CountedFormatting(int failing_call) {
  g_formatting_passes = 0;
  g_failing_pass = failing_call != 0 ? failing_call : std::numeric_limits<int>::max();
}
CountedFormatting::~CountedFormatting() { g_failing_pass = std::numeric_limits<int>::max(); }
int CountedFormatting::Passes() const { return g_formatting_passes; }

FakeSeek::FakeSeek(std::int64_t size, int seek_back_error) {
  g_seek_size = size;
  g_seek_back_error = seek_back_error;
}
FakeSeek::~FakeSeek() {
  g_seek_size = -1;
  g_seek_back_error = 0;
}

}  // namespace wrapped_calls

extern "C" {

int __wrap_clock_gettime(clockid_t clock, timespec* time) {
  using namespace wrapped_calls;
  if (clock != CLOCK_MONOTONIC || g_clock_mode == ClockMode::Real) {
    return __real_clock_gettime(clock, time);
  }
  if (g_clock_mode == ClockMode::Failing) {
    errno = EINVAL;
    return -1;
  }
  const std::lock_guard<std::mutex> guard(g_clock_lock);
  *time = g_clock_now;
  ++g_clock_reads;
  g_clock_read.notify_all();
  return 0;
}

int __wrap_tcdrain(int fd) {
  if (wrapped_calls::g_drain_record < 0) {
    return __real_tcdrain(fd);
  }
  const char digit = static_cast<char>('0' + fd);
  return __real_write(wrapped_calls::g_drain_record, &digit, 1) == 1 ? 0 : -1;
}

ssize_t __wrap_write(int fd, const void* buffer, std::size_t length) {
  if (!wrapped_calls::g_write) {
    return __real_write(fd, buffer, length);
  }
  const auto replacement = std::exchange(wrapped_calls::g_write, nullptr);
  const long result = replacement(fd, buffer, length);
  wrapped_calls::g_write = replacement;
  return static_cast<ssize_t>(result);
}

int __wrap_vsnprintf(char* buffer, std::size_t size, const char* format, va_list args) {
  return wrapped_calls::FormattingFails() ? -1 : __real_vsnprintf(buffer, size, format, args);
}

int __wrap___vsnprintf_chk(char* buffer, std::size_t size, int flag, std::size_t known, const char* format,
                           va_list args) {
  return wrapped_calls::FormattingFails() ? -1 : __real___vsnprintf_chk(buffer, size, flag, known, format, args);
}

off_t __wrap_lseek(int fd, off_t offset, int whence) { return wrapped_calls::Seek(fd, offset, whence, __real_lseek); }

off_t __wrap_lseek64(int fd, off_t offset, int whence) {
  return wrapped_calls::Seek(fd, offset, whence, __real_lseek64);
}

}  // extern "C"
