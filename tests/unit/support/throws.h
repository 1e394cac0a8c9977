// Expectations for exceptions and their complete text.
#pragma once

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <typeinfo>

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

/// Expects std::runtime_error itself, not a derived class.
template <typename Call>
void ExpectRuntimeError(const std::string& text, Call call) {
  try {
    call();
    ADD_FAILURE() << "nothing thrown, expected " << text;
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(e.what(), text);
    EXPECT_TRUE(typeid(e) == typeid(std::runtime_error)) << typeid(e).name();
  }
}

}  // namespace test_platform
