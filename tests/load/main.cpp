// The load client: many clients call all methods of a running daemon at the same time, and every reply is compared with
// a model.
//
//   ledgerd_load ADDRESS FILE CALLS CLIENTS SEED
//
// ADDRESS is the address of the bus, FILE the path of the registry file. From time to time all clients pause. One
// client then checks the whole registry and the file, empties both, and prints "checkpoint CALLS". The load continues
// after a line of standard input. The last line is "calls CALLS errors ERRORS seconds SECONDS". ERRORS is the number of
// expected errors.
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "tests/load/client.h"

namespace {

constexpr std::size_t kPipelined = 8;
constexpr std::size_t kCallsBetweenCheckpoints = 5000;
constexpr int kPatienceMilliseconds = 60000;

// The part of the registry's capacity that the clients leave free, for the calls that fill the registry.
constexpr std::size_t kReserve = 1000;

class Load {
public:
  Load(const std::string& address, std::string file, std::size_t clients, std::uint64_t seed)
      : m_file(std::move(file)) {
    for (unsigned number = 0; number < clients; ++number) {
      m_clients.push_back(std::make_unique<Client>(address, number, (model::kCapacity - kReserve) / clients, seed));
    }
  }

  std::size_t Calls() const { return m_calls; }

  std::size_t Errors() const {
    return std::accumulate(m_clients.begin(), m_clients.end(), std::size_t{0},
                           [](std::size_t sum, const auto& client) { return sum + client->Errors(); });
  }

  /// Makes calls from all clients at the same time until `calls` more calls are answered.
  void Together(std::size_t calls) {
    m_calls += calls;
    std::size_t to_send = calls;
    for (std::size_t answered = 0; answered < calls; answered += AwaitReplies()) {
      for (const auto& client : m_clients) {
        for (; to_send > 0 && client->Pending() < kPipelined; --to_send) {
          client->SendNext();
        }
      }
    }
  }

  /// Checks the registry and the file from one client. The others must pause, so that the whole registry is known.
  void Alone() {
    std::string text;
    for (const auto& client : m_clients) {
      text += client->Text();
      client->ForgetSections();
    }
    model::RegistryModel model(text);
    CheckContents(model);

    // Fills the registry to its last byte, then tries to add one byte.
    const std::string fill(model::kCapacity - text.size() - std::string("[fill]\nk=\n").size(), 'x');
    Call(model, {"Write", {"fill", "k", fill}});
    if (model.AcceptedText().size() != model::kCapacity) {
      throw UnexpectedReply("the model is not full");
    }
    Call(model, {"Write", {"fill", "l", ""}});
    Call(model, {"Write", {"fill", "k", fill + "x"}});
    CheckContents(model);

    Call(model, {"DeleteAll", {}});
    Call(model, {"DeleteAll", {}});
    CheckContents(model);
  }

private:
  void Call(model::RegistryModel& model, const model::Call& call) {
    ++m_calls;
    m_clients.front()->Send(call, model.Apply(call));
    while (m_clients.front()->Pending() > 0) {
      AwaitReplies();
    }
  }

  void CheckContents(model::RegistryModel& model) {
    for (const model::Call& call : model.CallsForContents()) {
      Call(model, call);
    }
    Call(model, {"Flush", {}});
    std::ifstream file(m_file, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!file || text != model.StoredText()) {
      throw UnexpectedReply("the file differs from the model. It contains:\n" + text);
    }
  }

  // Waits until a reply arrives. Returns the number of checked replies.
  std::size_t AwaitReplies() {
    std::vector<pollfd> descriptors;
    for (const auto& client : m_clients) {
      descriptors.push_back({client->Descriptor(), POLLIN, 0});
    }
    if (::poll(descriptors.data(), descriptors.size(), kPatienceMilliseconds) <= 0) {
      throw UnexpectedReply("no reply within a minute");
    }
    std::size_t count = 0;
    for (std::size_t i = 0; i < m_clients.size(); ++i) {
      count += descriptors[i].revents != 0 ? m_clients[i]->CheckReplies() : 0;
    }
    return count;
  }

  const std::string m_file;
  std::vector<std::unique_ptr<Client>> m_clients;
  std::size_t m_calls = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "usage: %s ADDRESS FILE CALLS CLIENTS SEED\n", argv[0]);
    return 2;
  }
  try {
    const std::size_t calls = std::stoul(argv[3]);
    Load load(argv[1], argv[2], std::stoul(argv[4]), std::stoull(argv[5]));
    const auto begin = std::chrono::steady_clock::now();
    while (load.Calls() < calls) {
      load.Together(std::min(kCallsBetweenCheckpoints, calls - load.Calls()));
      load.Alone();
      std::printf("checkpoint %zu\n", load.Calls());
      std::fflush(stdout);
      std::string line;
      std::getline(std::cin, line);
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
    std::printf("calls %zu errors %zu seconds %.1f\n", load.Calls(), load.Errors(), seconds.count());
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "seed %s: %s\n", argv[5], e.what());
    return 1;
  }
}
