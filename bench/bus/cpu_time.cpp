#include "bench/bus/cpu_time.h"

#include <sched.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>

namespace {

constexpr std::chrono::seconds kPatience(20);

// Returns nothing if a thread is running.
std::optional<std::uint64_t> SumAtRest(pid_t process) {
  std::uint64_t sum = 0;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
    std::ifstream stat(thread.path() / "stat");
    std::string line;
    std::getline(stat, line);
    std::ifstream schedstat(thread.path() / "schedstat");
    std::uint64_t nanoseconds = 0;
    // The state follows the name, which is in parentheses and may contain any byte.
    const std::size_t name_end = line.rfind(") ");
    if (name_end == std::string::npos || !(schedstat >> nanoseconds)) {
      throw std::runtime_error("cannot read the processor time of process " + std::to_string(process));
    }
    if (line[name_end + 2] != 'S') {
      return std::nullopt;
    }
    sum += nanoseconds;
  }
  return sum;
}

}  // namespace

std::uint64_t CpuTime(pid_t process) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    if (const std::optional<std::uint64_t> sum = SumAtRest(process)) {
      return *sum;
    }
    ::sched_yield();
  }
  throw std::runtime_error("process " + std::to_string(process) + " does not become idle");
}
