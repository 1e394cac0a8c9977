#include "lib/platform/monotonic_time.h"

#include "lib/platform/assertion.h"

namespace bramble {
namespace {

constexpr std::uint64_t kMicrosecondsPerSecond = 1000000;
constexpr long kNanosecondsPerSecond = 1000000000;

}  // namespace

timespec get_monotonic_time() {
  timespec ts;
  BRAMBLE_ASSERT(!clock_gettime(CLOCK_MONOTONIC, &ts));
  return ts;
}

timespec AddMicroseconds(timespec time, std::uint64_t microseconds) {
  time.tv_sec += static_cast<time_t>(microseconds / kMicrosecondsPerSecond);
  time.tv_nsec += static_cast<long>(microseconds % kMicrosecondsPerSecond) * 1000;
  if (time.tv_nsec >= kNanosecondsPerSecond) {
    time.tv_nsec -= kNanosecondsPerSecond;
    ++time.tv_sec;
  }
  return time;
}

bool IsBefore(const timespec& left, const timespec& right) {
  return left.tv_sec != right.tv_sec ? left.tv_sec < right.tv_sec : left.tv_nsec < right.tv_nsec;
}

}  // namespace bramble
