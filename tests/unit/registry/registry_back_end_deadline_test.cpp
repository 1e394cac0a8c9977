// When an unwritten change is due. Nobody wants to wait for it: the test looks up until when the kernel lets the
// store's worker sleep.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

#include "tests/unit/registry/back_end_fixture.h"
#include "tests/unit/support/emulation.h"

namespace {

// The clock of the deadline is the monotonic one, as the standard library's steady clock is.
using Clock = std::chrono::steady_clock;

constexpr auto kDelay = std::chrono::seconds(60);

std::string FirstLine(const std::filesystem::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::optional<std::filesystem::path> TaskNamed(const std::string& name) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (FirstLine(task.path() / "comm") == name) {
      return task.path();
    }
  }
  return std::nullopt;
}

// The absolute deadline of the wait that the task is in, if it is in one that has a deadline.
std::optional<Clock::time_point> DeadlineOf(const std::filesystem::path& task) {
  const std::string before = FirstLine(task / "syscall");
  std::istringstream words(before);
  long number = -1;
  std::string address, operation, value, timeout;
  words >> number >> address >> operation >> value >> timeout;
  if (number != SYS_futex || timeout.empty() || timeout == "0x0") {
    return std::nullopt;
  }
  // Not by the address itself: the worker may have gone on, and its stack with it.
  timespec deadline{};
  const int memory = ::open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
  const ssize_t size = ::pread64(memory, &deadline, sizeof deadline, std::stoll(timeout, nullptr, 16));
  ::close(memory);
  if (size != static_cast<ssize_t>(sizeof deadline) || FirstLine(task / "syscall") != before) {
    return std::nullopt;
  }
  return Clock::time_point(std::chrono::seconds(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec));
}

std::optional<Clock::time_point> WaitForDeadlineOf(const std::string& name) {
  const auto bound = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < bound) {
    const auto task = TaskNamed(name);
    const auto deadline = task ? DeadlineOf(*task) : std::nullopt;
    if (deadline) {
      return deadline;
    }
    std::this_thread::yield();
  }
  return std::nullopt;
}

TEST(RegistryBackEndDeadline, IsSixtySecondsAfterTheFirstUnwrittenChange) {
  if (test_support::kEmulated) {
    GTEST_SKIP() << "the system calls that can be seen are the emulator's";
  }
  if (FirstLine("/proc/self/syscall").empty()) {
    GTEST_SKIP() << "this kernel does not show system calls";
  }
  BackEnd back_end;
  const auto before = Clock::now();
  back_end->Write("s", "k", "v");
  const auto after = Clock::now();
  back_end->Write("s", "k", "w");
  const auto deadline = WaitForDeadlineOf("DALazyStore");
  ASSERT_TRUE(deadline);
  EXPECT_GE(*deadline - before, kDelay);
  EXPECT_LE(*deadline - after, kDelay);
}

}  // namespace
