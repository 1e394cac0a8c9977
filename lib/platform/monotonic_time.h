// Times of the monotonic clock. Changes of the wall clock do not affect them.
#pragma once

#include <cstdint>
#include <ctime>

namespace bramble {

/// Returns the time of CLOCK_MONOTONIC. It is an assertion failure if the clock cannot be read.
timespec get_monotonic_time();

/// Returns `time` plus `microseconds`. The nanoseconds of the result are below 1,000,000,000. A result that is too late
/// for a timespec becomes the latest time that a timespec can represent.
timespec AddMicroseconds(timespec time, std::uint64_t microseconds);

/// Returns the time from `begin` to `end`, which must not be earlier.
timespec TimeBetween(const timespec& begin, const timespec& end);

/// Returns whether `left` is strictly earlier than `right`.
bool IsBefore(const timespec& left, const timespec& right);

}  // namespace bramble
