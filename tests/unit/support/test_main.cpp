// The main function of every test program.
#include <gtest/gtest.h>

#include "tests/unit/support/private_mounts.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  // The build lists the tests. It must not mount anything.
  if (testing::GTEST_FLAG(list_tests)) {
    return RUN_ALL_TESTS();
  }
  test_support::EnterPrivateMounts();
  const int result = RUN_ALL_TESTS();
  test_support::LeavePrivateMounts();
  return result;
}
