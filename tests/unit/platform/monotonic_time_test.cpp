#include "lib/platform/monotonic_time.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "tests/unit/support/aborts.h"
#include "tests/unit/support/wrapped_calls.h"

using bramble::AddMicroseconds;
using bramble::get_monotonic_time;
using bramble::IsBefore;

TEST(MonotonicTime, IsTheMonotonicClock) {
  timespec before;
  timespec after;
  ASSERT_EQ(::clock_gettime(CLOCK_MONOTONIC, &before), 0);
  const timespec now = get_monotonic_time();
  ASSERT_EQ(::clock_gettime(CLOCK_MONOTONIC, &after), 0);
  EXPECT_FALSE(IsBefore(now, before));
  EXPECT_FALSE(IsBefore(after, now));
}

TEST(MonotonicTime, AbortsWhenTheClockCannotBeRead) {
  EXPECT_ASSERTION(
      {
        const wrapped_calls::FailingClock clock;
        get_monotonic_time();
      },
      "!clock_gettime(1, &ts)", "lib/platform/monotonic_time.cpp", "timespec bramble::get_monotonic_time\\(\\)");
}

namespace {

void ExpectEnd(const timespec& start, std::uint64_t microseconds, const timespec& expected) {
  const timespec end = AddMicroseconds(start, microseconds);
  EXPECT_EQ(end.tv_sec, expected.tv_sec);
  EXPECT_EQ(end.tv_nsec, expected.tv_nsec);
}

}  // namespace

TEST(AddMicroseconds, CarriesIntoTheSeconds) {
  const struct {
    const char* name;
    timespec start;
    std::uint64_t microseconds;
    timespec end;
  } rows[] = {
      {"nothing", {5, 7}, 0, {5, 7}},
      {"one microsecond", {5, 7}, 1, {5, 1007}},
      {"up to the last nanosecond", {5, 999}, 999999, {5, 999999999}},
      {"exactly a second of nanoseconds", {5, 1000}, 999999, {6, 0}},
      {"one more", {5, 1001}, 999999, {6, 1}},
      {"greatest carry", {5, 999999999}, 999999, {6, 999998999}},
      {"whole second", {5, 999999999}, 1000000, {6, 999999999}},
      {"a minute", {5, 7}, 60000000, {65, 7}},
      {"more microseconds than 32 bits hold", {5, 7}, 4295000000, {4300, 7}},
      {"from before the clock's start", {-5, 7}, 3000000, {-2, 7}},
      {"from before the clock's start to behind it", {-5, 999999000}, 6000001, {2, 0}},
      {"up to the last second", {5, 7}, 2147483641000000, {2147483646, 7}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ExpectEnd(row.start, row.microseconds, row.end);
  }
}

TEST(AddMicroseconds, StopsAtTheLastPointInTime) {
  constexpr time_t last = std::numeric_limits<time_t>::max();
  const struct {
    const char* name;
    timespec start;
    std::uint64_t microseconds;
    timespec end;
  } rows[] = {
      {"a second before the last", {last - 2, 7}, 1000000, {last - 1, 7}},
      {"the last second, which leaves no room for a carry", {last - 1, 7}, 1000000, {last, 999999999}},
      {"beyond", {last - 1, 999999999}, 5000000, {last, 999999999}},
      {"from the last point", {last, 999999999}, 0, {last, 999999999}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ExpectEnd(row.start, row.microseconds, row.end);
  }
  // 584,000 years: more than 32-bit time can hold, and well within 64-bit time.
  EXPECT_FALSE(IsBefore(AddMicroseconds({5, 7}, std::numeric_limits<std::uint64_t>::max()), {2147483647, 0}));
}

TEST(IsBefore, ComparesSecondsFirst) {
  const struct {
    const char* name;
    timespec left;
    timespec right;
    bool before;
  } rows[] = {
      {"equal", {5, 7}, {5, 7}, false},
      {"nanosecond before", {5, 6}, {5, 7}, true},
      {"nanosecond after", {5, 8}, {5, 7}, false},
      {"second before", {4, 9}, {5, 7}, true},
      {"second after", {6, 6}, {5, 7}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(IsBefore(row.left, row.right), row.before);
  }
}
