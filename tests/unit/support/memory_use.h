// Measures the peak memory of a piece of code.
#pragma once

#include <malloc.h>

#include <cstddef>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

namespace test_support {

// Under a sanitizer the figures would include the sanitizer's own memory.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

/// Returns a figure of /proc/self/status in bytes, or 0 if there is none with that name.
inline std::size_t ProcessMemory(const std::string& name) {
  std::ifstream status("/proc/self/status");
  std::size_t kilobytes = 0;
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, name.size() + 1, name + ":") == 0) {
      std::istringstream(line.substr(name.size() + 1)) >> kilobytes;
    }
  }
  return kilobytes * 1024;
}

/// Returns by how many bytes the resident memory rises above its present size while `code` runs.
inline std::size_t PeakGrowth(const std::function<void()>& code) {
  // Returns free memory to the kernel. Otherwise code that reuses it would seem to need no memory.
  ::malloc_trim(0);
  // Writing 5 resets the peak to the present size.
  std::ofstream("/proc/self/clear_refs") << 5;
  const std::size_t before = ProcessMemory("VmRSS");
  code();
  const std::size_t peak = ProcessMemory("VmHWM");
  return peak > before ? peak - before : 0;
}

}  // namespace test_support
