// Measures calls to several services on one bus. It makes one call at a time, in shuffled blocks, so that other work of
// the machine slows all kinds of calls equally.
//
//   ledgerd_bus_client ADDRESS BUS-PROCESS PASSES BLOCK
//
// Standard input has one line for each call. Tabs separate the fields:
//
//   KIND PROCESS DESTINATION PATH INTERFACE TYPES MEMBER [ARGUMENT ...]
//
// PROCESS is the process ID of the service. TYPES has one letter for each argument: s is a string, v is a variant that
// contains a string. Lines with the same KIND must be consecutive; their calls are made in turn. The client measures
// PASSES x BLOCK calls of each kind. It prints one line for each kind, "KIND P50 SERVICE-CPU BUS-CPU": the median time
// of a call, and the processor time that one call costs the service and the bus. All times are in nanoseconds.
#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/model/bus.h"

namespace {

using Clock = std::chrono::steady_clock;

// These calls are not measured, because the processor's caches still contain the data of other services.
constexpr std::size_t kWarmUpCalls = 5;

constexpr std::chrono::seconds kPatience(20);

// Returns the processor time of all threads of the process in nanoseconds, including the work of the kernel for them.
// Waits until all threads sleep, because only then the kernel's figures are complete.
std::uint64_t CpuTime(pid_t process) {
  const std::string name = "process " + std::to_string(process);
  const auto deadline = Clock::now() + kPatience;
  while (Clock::now() < deadline) {
    bool is_asleep = true;
    std::uint64_t sum = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
      std::ifstream stat(thread.path() / "stat"), schedstat(thread.path() / "schedstat");
      std::string line;
      std::getline(stat, line);
      // The state follows the name, which is in parentheses and may contain any byte.
      const std::size_t name_end = line.rfind(") ");
      std::uint64_t nanoseconds = 0;
      if (name_end == std::string::npos || !(schedstat >> nanoseconds)) {
        throw std::runtime_error("cannot read the processor time of " + name);
      }
      is_asleep = is_asleep && line[name_end + 2] == 'S';
      sum += nanoseconds;
    }
    if (is_asleep) {
      return sum;
    }
    ::sched_yield();
  }
  throw std::runtime_error(name + " does not become idle");
}

struct Kind {
  std::string name;
  pid_t service;
  std::vector<Message> calls;
  std::vector<std::int64_t> latencies;
  std::uint64_t service_cpu = 0;
  std::uint64_t bus_cpu = 0;
};

void AppendArgument(DBusMessageIter& arguments, char type, const char* text) {
  if (type == DBUS_TYPE_STRING) {
    dbus_message_iter_append_basic(&arguments, type, &text);
    return;
  }
  DBusMessageIter variant;
  dbus_message_iter_open_container(&arguments, DBUS_TYPE_VARIANT, DBUS_TYPE_STRING_AS_STRING, &variant);
  dbus_message_iter_append_basic(&variant, DBUS_TYPE_STRING, &text);
  dbus_message_iter_close_container(&arguments, &variant);
}

void AddCall(std::vector<Kind>& kinds, const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> fields;
  for (std::string field; std::getline(stream, field, '\t');) {
    fields.push_back(field);
  }
  constexpr std::size_t kTypes = 5;
  constexpr std::size_t kFixed = 7;
  if (fields.size() < kFixed || fields.size() != kFixed + fields[kTypes].size()) {
    throw std::runtime_error("not a call: " + line);
  }
  Message call(
      dbus_message_new_method_call(fields[2].c_str(), fields[3].c_str(), fields[4].c_str(), fields[6].c_str()));
  DBusMessageIter arguments;
  dbus_message_iter_init_append(call.get(), &arguments);
  for (std::size_t i = kFixed; i < fields.size(); ++i) {
    AppendArgument(arguments, fields[kTypes][i - kFixed], fields[i].c_str());
  }
  if (kinds.empty() || kinds.back().name != fields[0]) {
    kinds.push_back({fields[0], std::stoi(fields[1]), {}, {}});
  }
  kinds.back().calls.push_back(std::move(call));
}

// Makes call number `i` of the kind and returns its time in nanoseconds.
std::int64_t Call(Connection& connection, const Kind& kind, std::size_t i) {
  // A message can be sent only once.
  const Message call(dbus_message_copy(kind.calls[i % kind.calls.size()].get()));
  const auto begin = Clock::now();
  connection.Call(call.get());
  return std::chrono::nanoseconds(Clock::now() - begin).count();
}

void MeasureBlock(Connection& connection, pid_t bus, Kind& kind, std::size_t calls) {
  for (std::size_t i = 0; i < kWarmUpCalls; ++i) {
    Call(connection, kind, i);
  }
  const std::uint64_t bus_before = CpuTime(bus);
  const std::uint64_t service_before = CpuTime(kind.service);
  for (std::size_t i = 0; i < calls; ++i) {
    kind.latencies.push_back(Call(connection, kind, kWarmUpCalls + i));
  }
  kind.service_cpu += CpuTime(kind.service) - service_before;
  kind.bus_cpu += CpuTime(bus) - bus_before;
}

void Print(Kind& kind) {
  const std::size_t calls = kind.latencies.size();
  const auto median = kind.latencies.begin() + static_cast<std::ptrdiff_t>(calls / 2);
  std::nth_element(kind.latencies.begin(), median, kind.latencies.end());
  std::printf("%s %jd %ju %ju\n", kind.name.c_str(), static_cast<std::intmax_t>(*median),
              static_cast<std::uintmax_t>(kind.service_cpu / calls), static_cast<std::uintmax_t>(kind.bus_cpu / calls));
}

void Run(const char* address, pid_t bus, std::size_t passes, std::size_t block) {
  std::vector<Kind> kinds;
  for (std::string line; std::getline(std::cin, line);) {
    AddCall(kinds, line);
  }
  Connection connection(address);
  std::minstd_rand random;  // the same order in every run
  std::vector<Kind*> order(kinds.size());
  std::transform(kinds.begin(), kinds.end(), order.begin(), [](Kind& kind) { return &kind; });
  for (std::size_t pass = 0; pass < passes; ++pass) {
    // The caches still contain the data of the block before, so a kind must not always follow the same other kind.
    std::shuffle(order.begin(), order.end(), random);
    for (Kind* const kind : order) {
      MeasureBlock(connection, bus, *kind, block);
    }
  }
  std::for_each(kinds.begin(), kinds.end(), Print);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s ADDRESS BUS-PROCESS PASSES BLOCK\n", argv[0]);
    return 2;
  }
  try {
    Run(argv[1], std::stoi(argv[2]), std::stoul(argv[3]), std::stoul(argv[4]));
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
}
