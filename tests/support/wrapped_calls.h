// Doubles of C library functions, put in front of them by the linker: for a clock that stands still and for faults that
// no file, limit or mount brings about. Each double is active while its object lives; otherwise calls pass through.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>

namespace wrapped_calls {

/// While it lives, CLOCK_MONOTONIC stands at the time it was set to. Only reading the clock is affected: a wait for a
/// deadline still runs on the real clock. Any thread may read the clock.
class FakeClock {
public:
  explicit FakeClock(timespec now);
  ~FakeClock();
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  void Set(timespec now);

  /// Waits until the clock has been read `count` times more. False if that takes longer than the bound of every wait.
  bool WaitForReads(int count);
};

/// While it lives, reading CLOCK_MONOTONIC fails.
class FailingClock {
public:
  FailingClock();
  ~FailingClock();
  FailingClock(const FailingClock&) = delete;
  FailingClock& operator=(const FailingClock&) = delete;
};

/// While it lives, draining a terminal is recorded: `descriptor` gets one byte for each call, the number of the drained
/// descriptor as a digit. Works until the process has ended.
class RecordedDrains {
public:
  explicit RecordedDrains(int descriptor);
  ~RecordedDrains();
  RecordedDrains(const RecordedDrains&) = delete;
  RecordedDrains& operator=(const RecordedDrains&) = delete;
};

/// While it lives, write(2) calls the replacement instead. The replacement may call write.
class ReplacedWrite {
public:
  explicit ReplacedWrite(std::function<long(int, const void*, std::size_t)> replacement);
  ~ReplacedWrite();
  ReplacedWrite(const ReplacedWrite&) = delete;
  ReplacedWrite& operator=(const ReplacedWrite&) = delete;
};

/// While it lives, the calls of vsnprintf are counted, and from `failing_call` on (counted from 1) they fail.
class CountedFormatting {
public:
  explicit CountedFormatting(int failing_call = 0);
  ~CountedFormatting();
  CountedFormatting(const CountedFormatting&) = delete;
  CountedFormatting& operator=(const CountedFormatting&) = delete;

  int Passes() const;
};

/// While it lives, seeking to the end reports `size` (the real size if negative), and seeking to a place fails
/// with `seek_back_error` if that is not 0.
class FakeSeek {
public:
  FakeSeek(std::int64_t size, int seek_back_error);
  ~FakeSeek();
  FakeSeek(const FakeSeek&) = delete;
  FakeSeek& operator=(const FakeSeek&) = delete;
};

}  // namespace wrapped_calls
