// Expectations for failed assertions and their complete report.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "tests/unit/support/emulation.h"
#include "tests/unit/support/private_mounts.h"

namespace test_platform {

/// Returns a regular expression that matches `text` byte for byte.
std::string Quoted(const std::string& text);

}  // namespace test_platform

/// Runs the statement in a forked child. Expects that the assertion `expression` (byte for byte) fails in `file` and
/// `function` (a regular expression), with the report in the kernel log, SIGABRT, and `err` on standard error.
#define EXPECT_ASSERTION_AND_STDERR(statement, expression, file, function, err)                                        \
  do {                                                                                                                 \
    test_support::ClearKernelLog();                                                                                    \
    EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), err);                                                     \
    EXPECT_THAT(test_support::KernelLog(),                                                                             \
                testing::MatchesRegex(                                                                                 \
                    "<2>User space assert from process [0-9]+: " + test_platform::Quoted(expression) +                 \
                    "\nASSERT Executing " + test_platform::Quoted(file) + ":[0-9]+:" + std::string(function) + "\n")); \
  } while (false)

#define EXPECT_ASSERTION(statement, expression, file, function) \
  EXPECT_ASSERTION_AND_STDERR(statement, expression, file, function, test_support::PrintsExactly(""))
