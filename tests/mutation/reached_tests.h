// For a test program: if LEDGERD_REACHED is set, prints a line for each test to LEDGERD_REACHED.tests: its name, its
// milliseconds, and the mutants that it reaches. What is reached before a test is on a line without a name.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/mutation/chosen_mutant.h"

namespace {

class ReachedTests : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { Print("", 0); }
  void OnTestEnd(const testing::TestInfo& test) override {
    Print(std::string(test.test_suite_name()) + "." + test.name(), test.result()->elapsed_time());
  }

  static void Print(const std::string& name, long long milliseconds) {
    std::FILE* const file = std::fopen((std::string(std::getenv("LEDGERD_REACHED")) + ".tests").c_str(), "ae");
    std::fprintf(file, "%s %lld", name.c_str(), milliseconds);
    for (int i = 0; i < kMostMutants; ++i) {
      if (ledgerd_reached[i] != 0) {
        std::fprintf(file, " %d", i);
        ledgerd_reached[i] = 0;
      }
    }
    std::fprintf(file, "\n");
    std::fclose(file);
  }
};

[[maybe_unused]] const bool has_listener = [] {
  if (std::getenv("LEDGERD_REACHED") != nullptr) {
    testing::UnitTest::GetInstance()->listeners().Append(new ReachedTests);
  }
  return true;
}();

}  // namespace
