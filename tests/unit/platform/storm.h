// Threads that do random things for a while, to be watched by ThreadSanitizer and by the test.
#pragma once

#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

namespace test_platform {

using Random = std::minstd_rand;

/// A seed that differs from run to run; the test shows it when it fails.
inline unsigned NewSeed() { return std::random_device()(); }

/// Calls `step(random)` so many times on each of so many threads, and returns when all are done.
template <typename Step>
void Storm(unsigned seed, unsigned thread_count, int steps, Step step) {
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < thread_count; ++i) {
    threads.emplace_back([=, &step] {
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
