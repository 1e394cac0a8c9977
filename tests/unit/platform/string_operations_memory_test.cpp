#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "lib/platform/string_operations.h"
#include "tests/unit/support/failing_new.h"

using test_support::FailingNew;

TEST(StrprintfMemory, IsTheReturnedStringsAloneForAShortText) {
  for (const std::size_t length : {0U, 1U, 15U, 16U, 100U, 255U}) {
    SCOPED_TRACE(length);
    const std::string text(length, 'x');
    const FailingNew second(2, FailingNew::Lack::OfOneAllocation);
    EXPECT_NO_THROW(bramble::strprintf("%s", text.c_str()));
    EXPECT_FALSE(second.HasFailed());
  }
}
