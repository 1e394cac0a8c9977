#include "lib/platform/monotonic_time.h"

#include "tests/unit/platform/platform_test.h"

using namespace test_platform;

TEST(MonotonicTime, IsTheMonotonicClock) {
  timespec before;
  timespec after;
  ASSERT_EQ(::clock_gettime(CLOCK_MONOTONIC, &before), 0);
  const timespec now = get_monotonic_time();
  ASSERT_EQ(::clock_gettime(CLOCK_MONOTONIC, &after), 0);
  EXPECT_FALSE(IsBefore(now, before));
  EXPECT_FALSE(IsBefore(after, now));
}

TEST(MonotonicTime, AbortsIfTheClockCannotBeRead) {
  EXPECT_ASSERTION(
      {
        const FailingClock clock;
        get_monotonic_time();
      },
      "!clock_gettime(1, &ts)", "lib/platform/monotonic_time.cpp", "timespec bramble::get_monotonic_time\\(\\)");
}

TEST(AddMicroseconds, CarriesIntoTheSecondsAndStopsAtTheLatestTime) {
  constexpr time_t last = std::numeric_limits<time_t>::max();
  const std::tuple<const char*, timespec, std::uint64_t, timespec> rows[] = {
      {"nothing", {5, 7}, 0, {5, 7}},
      {"one microsecond", {5, 7}, 1, {5, 1007}},
      {"up to the last nanosecond", {5, 999}, 999999, {5, 999999999}},
      {"exactly a second of nanoseconds", {5, 1000}, 999999, {6, 0}},
      {"one more", {5, 1001}, 999999, {6, 1}},
      {"greatest carry", {5, 999999999}, 999999, {6, 999998999}},
      {"whole second", {5, 999999999}, 1000000, {6, 999999999}},
      {"a minute", {5, 7}, 60000000, {65, 7}},
      {"more microseconds than 32 bits hold", {5, 7}, 4295000000, {4300, 7}},
      {"before the start of the clock", {-5, 7}, 3000000, {-2, 7}},
      {"from before the start of the clock to after it", {-5, 999999000}, 6000001, {2, 0}},
      {"68 years", {5, 7}, 2147483641000000, {2147483646, 7}},
      {"a second before the last", {last - 2, 7}, 1000000, {last - 1, 7}},
      {"the last second, which leaves no room for a carry", {last - 1, 7}, 1000000, {last, 999999999}},
      {"after the last second", {last - 1, 999999999}, 5000000, {last, 999999999}},
      {"from the latest time", {last, 999999999}, 0, {last, 999999999}},
  };
  for (const auto& [name, start, microseconds, expected] : rows) {
    SCOPED_TRACE(name);
    const timespec end = AddMicroseconds(start, microseconds);
    EXPECT_EQ(end.tv_sec, expected.tv_sec);
    EXPECT_EQ(end.tv_nsec, expected.tv_nsec);
  }
  // 584,000 years do not fit a 32-bit time. They fit a 64-bit time.
  EXPECT_FALSE(IsBefore(AddMicroseconds({5, 7}, std::numeric_limits<std::uint64_t>::max()), {2147483647, 0}));
}

TEST(TimeBetween, BorrowsASecondForTheNanoseconds) {
  const std::tuple<const char*, timespec, timespec, timespec> rows[] = {
      {"none", {5, 7}, {5, 7}, {0, 0}},
      {"seconds", {5, 7}, {8, 7}, {3, 0}},
      {"nanoseconds", {5, 7}, {5, 10}, {0, 3}},
      {"into the next second", {5, 999999999}, {6, 1}, {0, 2}},
      {"less than two seconds", {5, 2}, {7, 1}, {1, 999999999}},
  };
  for (const auto& [name, begin, end, expected] : rows) {
    SCOPED_TRACE(name);
    const timespec between = TimeBetween(begin, end);
    EXPECT_EQ(between.tv_sec, expected.tv_sec);
    EXPECT_EQ(between.tv_nsec, expected.tv_nsec);
  }
}

TEST(IsBefore, ComparesSecondsFirst) {
  const std::tuple<const char*, timespec, bool> rows[] = {
      {"equal", {5, 7}, false},        {"nanosecond before", {5, 6}, true}, {"nanosecond after", {5, 8}, false},
      {"second before", {4, 9}, true}, {"second after", {6, 6}, false},
  };
  for (const auto& [name, time, is_before] : rows) {
    SCOPED_TRACE(name);
    EXPECT_EQ(IsBefore(time, {5, 7}), is_before);
  }
}
