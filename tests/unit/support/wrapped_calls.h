// Doubles of functions of the C library, which the linker puts in their place: for a clock that does not advance, and
// for failures that no file, limit or mount can cause. A double is active while its object exists. Otherwise calls
// reach the original function.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>

namespace wrapped_calls {

/// While this object exists, CLOCK_MONOTONIC stays at the time that was set. Only reading the clock is affected: a wait
/// with a deadline still uses the real clock. Any thread may read the clock.
class FakeClock {
public:
  explicit FakeClock(timespec now);
  ~FakeClock();
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  void Set(timespec now);

  /// Waits until the clock has been read `count` more times. Returns false if that takes longer than kWaitBound.
  bool WaitForReads(int count);
};

/// While this object exists, reading CLOCK_MONOTONIC fails.
class FailingClock {
public:
  FailingClock();
  ~FailingClock();
  FailingClock(const FailingClock&) = delete;
  FailingClock& operator=(const FailingClock&) = delete;
};

/// While this object exists, tcdrain writes the number of the drained descriptor to `descriptor`, as one digit. This
/// works even while the process exits.
class RecordedDrains {
public:
  explicit RecordedDrains(int descriptor);
  ~RecordedDrains();
  RecordedDrains(const RecordedDrains&) = delete;
  RecordedDrains& operator=(const RecordedDrains&) = delete;
};

/// While this object exists, write(2) calls the replacement. Inside the replacement, write calls the original.
class ReplacedWrite {
public:
  explicit ReplacedWrite(std::function<long(int, const void*, std::size_t)> replacement);
  ~ReplacedWrite();
  ReplacedWrite(const ReplacedWrite&) = delete;
  ReplacedWrite& operator=(const ReplacedWrite&) = delete;
};

/// While this object exists, calls of vsnprintf are counted. They fail from call number `failing_call` on, counted from
/// 1. If it is 0, none fails.
class CountedFormatting {
public:
  explicit CountedFormatting(int failing_call = 0);
  ~CountedFormatting();
  CountedFormatting(const CountedFormatting&) = delete;
  CountedFormatting& operator=(const CountedFormatting&) = delete;

  int Passes() const;
};

/// While this object exists, seeking to the end returns `size`, or the real size if `size` is negative. Seeking to an
/// absolute offset fails with `seek_back_error` if that is not 0.
class FakeSeek {
public:
  FakeSeek(std::int64_t size, int seek_back_error);
  ~FakeSeek();
  FakeSeek(const FakeSeek&) = delete;
  FakeSeek& operator=(const FakeSeek&) = delete;
};

}  // namespace wrapped_calls
