// Doubles of functions of the C library, which the linker puts in their place: for a clock that does not advance, and
// for failures that no file, limit or mount can cause. A double is active while its object exists. Otherwise calls
// reach the original function.
#pragma once

#include <boost/core/noncopyable.hpp>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>

namespace wrapped_calls {

/// While this object exists, CLOCK_MONOTONIC stays at the time that was set. Only reading the clock is affected: a wait
/// with a deadline still uses the real clock. Any thread may read the clock.
class FakeClock : boost::noncopyable {
public:
  explicit FakeClock(timespec now);
  ~FakeClock();

  void Set(timespec now);

  /// Waits until the clock has been read `count` more times. Returns false if that takes longer than kWaitBound.
  bool WaitForReads(int count);
};

/// While this object exists, reading CLOCK_MONOTONIC fails.
struct FailingClock : boost::noncopyable {
  FailingClock();
  ~FailingClock();
};

/// While this object exists, tcdrain writes the number of the drained descriptor to `descriptor`, as one digit. This
/// works even while the process exits.
struct RecordedDrains : boost::noncopyable {
  explicit RecordedDrains(int descriptor);
  ~RecordedDrains();
};

/// While this object exists, write(2) calls the replacement. Inside the replacement, write calls the original.
struct ReplacedWrite : boost::noncopyable {
  explicit ReplacedWrite(std::function<long(int, const void*, std::size_t)> replacement);
  ~ReplacedWrite();
};

/// While this object exists, calls of vsnprintf are counted. They fail from call number `failing_call` on, counted from
/// 1. If it is 0, none fails.
struct CountedFormatting : boost::noncopyable {
  explicit CountedFormatting(int failing_call = 0);
  ~CountedFormatting();

  int Passes() const;
};

/// While this object exists, seeking to the end returns `size`, or the real size if `size` is negative. Seeking to an
/// absolute offset fails with `seek_back_error` if that is not 0.
struct FakeSeek : boost::noncopyable {
  FakeSeek(std::int64_t size, int seek_back_error);
  ~FakeSeek();
};

}  // namespace wrapped_calls
