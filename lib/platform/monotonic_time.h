// Points on the monotonic clock, which no change of the wall clock moves.
#pragma once

#include <cstdint>
#include <ctime>

namespace bramble {

/// The time of CLOCK_MONOTONIC. A clock that cannot be read is an assertion failure.
timespec get_monotonic_time();

/// `time` moved into the future by `microseconds`; the nanoseconds of the result are below
/// 1,000,000,000. A point that a timespec cannot hold becomes the last one that it can.
timespec AddMicroseconds(timespec time, std::uint64_t microseconds);

/// Whether `left` is strictly earlier than `right`.
bool IsBefore(const timespec& left, const timespec& right);

}  // namespace bramble
