// Threads that make random calls for a while. ThreadSanitizer and the test watch them.
#pragma once

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

namespace test_platform {

using Random = std::minstd_rand;

/// Calls `step(random)` `steps` times on each of four threads. Returns when all have ended. The seed differs from run
/// to run, and failures of the steps show it.
template <typename Step>
void Storm(int steps, Step step) {
  const unsigned seed = std::random_device()();
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 4; ++i) {
    threads.emplace_back([=, &step] {
      SCOPED_TRACE("seed " + std::to_string(seed));
      Random random(seed + i);
      for (int n = 0; n < steps && !testing::Test::HasFailure(); ++n) {
        step(random);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace test_platform
