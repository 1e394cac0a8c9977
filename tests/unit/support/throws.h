// Expectations for exceptions and their complete text.
#pragma once

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>
#include <typeinfo>

#include "lib/platform/errno_exception.h"

namespace test_platform {

template <typename Call>
void ExpectErrno(int error_number, const std::string& text, Call call) {
  EXPECT_THAT(call, testing::Throws<bramble::ErrnoException>(
                        testing::AllOf(testing::Property(&std::exception::what, testing::StrEq(text)),
                                       testing::Property(&bramble::ErrnoException::ErrorNumber, error_number))));
}

/// Expects std::runtime_error itself, not a derived class.
template <typename Call>
void ExpectRuntimeError(const std::string& text, Call call) {
  const auto is_itself = [](const std::exception& e) { return typeid(e) == typeid(std::runtime_error); };
  EXPECT_THAT(call, testing::Throws<std::runtime_error>(testing::AllOf(
                        testing::Property(&std::exception::what, testing::StrEq(text)), testing::Truly(is_itself))));
}

}  // namespace test_platform
