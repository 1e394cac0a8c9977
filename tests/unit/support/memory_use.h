// Measures the peak memory of a piece of code.
#pragma once

#include <malloc.h>

#include <cstddef>
#include <fstream>
#include <functional>
#include <string>

#ifndef __has_feature
#define __has_feature(feature) 0
#endif

namespace test_support {

// Under a sanitizer the figures would include the sanitizer's own memory.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || __has_feature(address_sanitizer) || \
    __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

/// Returns by how many bytes the resident memory rises above its present size while `code` runs.
inline std::size_t PeakGrowth(const std::function<void()>& code) {
  const auto peak = [] {
    std::ifstream status("/proc/self/status");
    std::size_t kilobytes = 0;
    for (std::string word; word != "VmHWM:" && status >> word;) {
    }
    status >> kilobytes;
    return kilobytes * 1024;
  };
  // Returns free memory to the kernel. Otherwise code that reuses it would seem to need no memory.
  ::malloc_trim(0);
  // Writing 5 resets the peak to the present size.
  std::ofstream("/proc/self/clear_refs") << 5;
  const std::size_t before = peak();
  code();
  return peak() - before;
}

}  // namespace test_support
