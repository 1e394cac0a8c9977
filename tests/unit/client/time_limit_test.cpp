#include "client/time_limit.h"

#include <gtest/gtest.h>
#include <sys/time.h>

namespace ledgerctl {
namespace {

// The user's editor may then run for any time.
TEST(TimeLimit, EndsWithTheObject) {
  itimerval left{};
  {
    const TimeLimit limit(std::chrono::hours(6), "21600");
    ::getitimer(ITIMER_REAL, &left);
    EXPECT_GT(left.it_value.tv_sec, 0);
  }
  ::getitimer(ITIMER_REAL, &left);
  EXPECT_EQ(left.it_value.tv_sec, 0);
  EXPECT_EQ(left.it_value.tv_usec, 0);
}

}  // namespace
}  // namespace ledgerctl
