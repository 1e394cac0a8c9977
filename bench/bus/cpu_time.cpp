#include "bench/bus/cpu_time.h"

#include <sched.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace {

constexpr std::chrono::seconds kPatience(20);

std::filesystem::path Threads(pid_t process) { return "/proc/" + std::to_string(process) + "/task"; }

// The state follows the name, which is in parentheses and may hold any byte.
char State(const std::filesystem::path& thread) {
  std::ifstream file(thread / "stat");
  std::string line;
  std::getline(file, line);
  const std::size_t name_end = line.rfind(") ");
  return name_end == std::string::npos ? 'X' : line[name_end + 2];
}

bool IsAtRest(pid_t process) {
  for (const auto& thread : std::filesystem::directory_iterator(Threads(process))) {
    if (State(thread) == 'R' || State(thread) == 'D') {
      return false;
    }
  }
  return true;
}

}  // namespace

std::uint64_t CpuTime(pid_t process) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!IsAtRest(process)) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("process " + std::to_string(process) + " does not come to rest");
    }
    ::sched_yield();
  }
  std::uint64_t sum = 0;
  for (const auto& thread : std::filesystem::directory_iterator(Threads(process))) {
    std::ifstream file(thread.path() / "schedstat");
    std::uint64_t nanoseconds = 0;
    if (!(file >> nanoseconds)) {
      throw std::runtime_error("no account of process " + std::to_string(process));
    }
    sum += nanoseconds;
  }
  return sum;
}
