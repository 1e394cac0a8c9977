// Expecting the exception of a failed system call, with its whole text.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "lib/platform/errno_exception.h"

namespace test_platform {

template <typename Call>
void ExpectErrno(int error_number, const std::string& text, Call call) {
  try {
    call();
    ADD_FAILURE() << "nothing thrown, expected " << text;
  } catch (const bramble::ErrnoException& e) {
    EXPECT_EQ(e.what(), text);
    EXPECT_EQ(e.ErrorNumber(), error_number);
  }
}

}  // namespace test_platform
