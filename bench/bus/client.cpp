// Measures calls to all services in turn, in small blocks, so that a busy machine slows all of them alike.
//
//   ledgerd_bus_client BUS-PROCESS ROUNDS PASSES BLOCK
//
// A round makes PASSES x BLOCK calls of each kind in lock-step on one connection, then as many again from eight
// connections that keep eight calls each under way. For each kind and round it prints a line:
//
//   lock-step|pipelined KIND CALLS P50 P99 ELAPSED SERVICE-CPU BUS-CPU
//
// The calls' latency, their time altogether, and the processor time that one call cost the service and the bus daemon,
// all in nanoseconds.
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <exception>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/bus/connection.h"
#include "bench/bus/cpu_time.h"
#include "bench/bus/kinds.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kConnections = 8;
constexpr std::size_t kUnderWay = 8;
constexpr std::size_t kWarmUpCalls = 5;
constexpr int kPatienceMilliseconds = 30000;

std::uint64_t Nanoseconds(Clock::duration duration) {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count());
}

void Check(const Kind& kind, const Message& reply) {
  if (std::strcmp(dbus_message_get_signature(reply.get()), kind.reply) != 0) {
    throw std::runtime_error(kind.name + " has answered with a reply of another type");
  }
}

// What a round has found out about a kind.
struct Findings {
  std::vector<std::uint64_t> latencies;
  std::uint64_t elapsed = 0;
  std::uint64_t service_cpu = 0;
  std::uint64_t bus_cpu = 0;
};

std::uint64_t Percentile(std::vector<std::uint64_t>& values, std::size_t percent) {
  const auto at = values.begin() + static_cast<std::ptrdiff_t>((values.size() - 1) * percent / 100);
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

void Print(const char* mode, const Kind& kind, Findings& findings) {
  const std::size_t calls = findings.latencies.size();
  std::printf("%s %s %zu %ju %ju %ju %ju %ju\n", mode, kind.name.c_str(), calls, Percentile(findings.latencies, 50),
              Percentile(findings.latencies, 99), findings.elapsed, findings.service_cpu / calls,
              findings.bus_cpu / calls);
}

void LockStep(Connection& connection, const Kind& kind, std::size_t calls, Findings& findings) {
  for (std::size_t i = 0; i < calls; ++i) {
    const auto begin = Clock::now();
    const Message reply = connection.Call(kind.calls[i % kind.calls.size()].get());
    findings.latencies.push_back(Nanoseconds(Clock::now() - begin));
    Check(kind, reply);
  }
}

void Pipelined(std::deque<Connection>& connections, const Kind& kind, std::size_t calls, Findings& findings) {
  // Replies come in the order of the calls, so the oldest call of a connection is the answered one.
  std::vector<std::deque<Clock::time_point>> under_way(connections.size());
  std::size_t sent = 0;
  std::size_t answered = 0;
  std::vector<pollfd> descriptors;
  for (const Connection& connection : connections) {
    descriptors.push_back({connection.Descriptor(), POLLIN, 0});
  }
  while (answered < calls) {
    for (std::size_t i = 0; i < connections.size(); ++i) {
      while (sent < calls && under_way[i].size() < kUnderWay) {
        under_way[i].push_back(Clock::now());
        connections[i].Send(kind.calls[sent++ % kind.calls.size()].get());
      }
    }
    if (::poll(descriptors.data(), descriptors.size(), kPatienceMilliseconds) <= 0) {
      throw std::runtime_error(kind.name + " does not answer");
    }
    for (std::size_t i = 0; i < connections.size(); ++i) {
      while (const Message reply = descriptors[i].revents != 0 ? connections[i].TakeReply(false) : nullptr) {
        findings.latencies.push_back(Nanoseconds(Clock::now() - under_way[i].front()));
        under_way[i].pop_front();
        Check(kind, reply);
        ++answered;
      }
    }
  }
}

class Benchmark {
public:
  Benchmark(pid_t bus, std::size_t passes, std::size_t block)
      : m_bus(bus), m_passes(passes), m_block(block), m_connections(kConnections), m_kinds(AllKinds()) {
    PreparePeers(m_connections.front());
    for (const Kind& kind : m_kinds) {
      m_services.push_back(m_connections.front().OwnerOf(kind.service));
    }
  }

  void Round() {
    Print("lock-step", [&](const Kind& kind, std::size_t calls, Findings& findings) {
      LockStep(m_connections.front(), kind, calls, findings);
    });
    Print("pipelined", [&](const Kind& kind, std::size_t calls, Findings& findings) {
      Pipelined(m_connections, kind, calls, findings);
    });
    std::fflush(stdout);
  }

private:
  template <typename MakeCalls>
  void Print(const char* mode, MakeCalls make_calls) {
    std::vector<Findings> findings(m_kinds.size());
    std::vector<std::size_t> order(m_kinds.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    for (std::size_t pass = 0; pass < m_passes; ++pass) {
      // What went before has its effect, so no kind always follows the same one.
      std::shuffle(order.begin(), order.end(), m_random);
      for (const std::size_t i : order) {
        Measure(i, make_calls, findings[i]);
      }
    }
    for (std::size_t i = 0; i < m_kinds.size(); ++i) {
      ::Print(mode, m_kinds[i], findings[i]);
    }
  }

  template <typename MakeCalls>
  void Measure(std::size_t index, MakeCalls make_calls, Findings& findings) {
    const Kind& kind = m_kinds[index];
    if (kind.fill != 0 && kind.fill != m_fill) {
      Fill(m_connections.front(), kind.fill);
      m_fill = kind.fill;
    }
    // Some are not counted, after the other services had the processor's caches.
    for (std::size_t i = 0; i < kWarmUpCalls; ++i) {
      m_connections.front().Call(kind.calls[i % kind.calls.size()].get());
    }
    const std::uint64_t bus_before = CpuTime(m_bus);
    const std::uint64_t service_before = CpuTime(m_services[index]);
    const auto begin = Clock::now();
    make_calls(kind, std::max<std::size_t>(m_block / kind.divisor, 1), findings);
    findings.elapsed += Nanoseconds(Clock::now() - begin);
    findings.service_cpu += CpuTime(m_services[index]) - service_before;
    findings.bus_cpu += CpuTime(m_bus) - bus_before;
  }

  const pid_t m_bus;
  const std::size_t m_passes;
  const std::size_t m_block;
  std::deque<Connection> m_connections;
  const std::vector<Kind> m_kinds;
  std::vector<pid_t> m_services;  // the process of each kind
  std::size_t m_fill = 0;
  std::minstd_rand m_random;  // the same orders in every run
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s BUS-PROCESS ROUNDS PASSES BLOCK\n", argv[0]);
    return 2;
  }
  try {
    Benchmark benchmark(std::stoi(argv[1]), std::stoul(argv[3]), std::stoul(argv[4]));
    for (std::size_t round = std::stoul(argv[2]); round > 0; --round) {
      benchmark.Round();
    }
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
  }
}
