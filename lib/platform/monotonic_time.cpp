#include "lib/platform/monotonic_time.h"

#include <limits>

#include "lib/platform/assertion.h"

namespace bramble {
namespace {

constexpr std::uint64_t kMicrosecondsPerSecond = 1000000;
constexpr long kNanosecondsPerSecond = 1000000000;
constexpr time_t kLastSecond = std::numeric_limits<time_t>::max();

}  // namespace

timespec get_monotonic_time() {
  timespec ts;
  BRAMBLE_ASSERT(!clock_gettime(CLOCK_MONOTONIC, &ts));
  return ts;
}

timespec AddMicroseconds(timespec time, std::uint64_t microseconds) {
  const std::uint64_t seconds = microseconds / kMicrosecondsPerSecond;
  // One second is kept for the carry. A 32-bit time_t ends 68 years after the start of the clock.
  if (seconds > static_cast<std::uint64_t>(kLastSecond) || time.tv_sec >= kLastSecond - static_cast<time_t>(seconds)) {
    return {kLastSecond, kNanosecondsPerSecond - 1};
  }
  time.tv_sec += static_cast<time_t>(seconds);
  time.tv_nsec += static_cast<long>(microseconds % kMicrosecondsPerSecond) * 1000;
  if (time.tv_nsec >= kNanosecondsPerSecond) {
    time.tv_nsec -= kNanosecondsPerSecond;
    ++time.tv_sec;
  }
  return time;
}

timespec TimeBetween(const timespec& begin, const timespec& end) {
  timespec between{end.tv_sec - begin.tv_sec, end.tv_nsec - begin.tv_nsec};
  if (between.tv_nsec < 0) {
    between.tv_nsec += kNanosecondsPerSecond;
    --between.tv_sec;
  }
  return between;
}

bool IsBefore(const timespec& left, const timespec& right) {
  return left.tv_sec != right.tv_sec ? left.tv_sec < right.tv_sec : left.tv_nsec < right.tv_nsec;
}

}  // namespace bramble
