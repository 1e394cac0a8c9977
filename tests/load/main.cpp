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
#include <string>
#include <vector>

#include "tests/load/checked_connection.h"
#include "tests/load/generator.h"
#include "tests/load/model.h"

namespace {

constexpr std::size_t kPipelined = 8;
constexpr std::size_t kCallsBetweenCheckpoints = 5000;
constexpr int kPatienceMilliseconds = 60000;

// The part of the registry's capacity that the clients leave free, for the calls that fill the registry.
constexpr std::size_t kReserve = 1000;

struct Client {
  Client(const std::string& address, Model& model, unsigned number, std::size_t budget, std::uint64_t seed)
      : connection(address), generator(model, number, budget, seed) {}

  CheckedConnection connection;
  Generator generator;
};

class Load {
public:
  Load(const std::string& address, std::string file, std::size_t clients, std::uint64_t seed)
      : m_file(std::move(file)) {
    for (unsigned number = 0; number < clients; ++number) {
      m_clients.push_back(
          std::make_unique<Client>(address, m_model, number, (Model::kCapacity - kReserve) / clients, seed));
    }
  }

  std::size_t Calls() const { return m_calls; }
  std::size_t Errors() const { return m_errors; }

  /// Makes calls from all clients at the same time until `calls` more calls are answered.
  void Together(std::size_t calls) {
    std::size_t to_send = calls;
    std::size_t to_answer = calls;
    while (to_answer > 0) {
      for (const auto& client : m_clients) {
        while (to_send > 0 && client->connection.Pending() < kPipelined) {
          Send(client->connection, client->generator.Next());
          --to_send;
        }
      }
      to_answer -= AwaitReplies();
    }
  }

  /// Checks the registry and the file from one client. The others must pause, so that the whole registry is known.
  void Alone() {
    AskForAll();
    Call({"Flush", {}});
    CheckFile();

    // Fills the registry to its last byte, then tries to add one byte.
    const std::string overhead = "[fill]\nk=\n";
    const std::string fill(Model::kCapacity - m_model.Size() - overhead.size(), 'x');
    Call({"Write", {"fill", "k", fill}});
    if (m_model.Size() != Model::kCapacity) {
      throw UnexpectedReply("the model is not full");
    }
    Call({"Write", {"fill", "l", ""}});
    Call({"Write", {"fill", "k", fill + "x"}});
    Call({"Flush", {}});
    CheckFile();
    AskForAll();

    Call({"DeleteAll", {}});
    Call({"DeleteAll", {}});
    Call({"Flush", {}});
    CheckFile();
    AskForAll();
  }

private:
  void Send(CheckedConnection& connection, ExpectedCall call) {
    m_errors += call.expectation.reply.type == "error" ? 1 : 0;
    ++m_calls;
    connection.Send(std::move(call));
  }

  void Call(struct Call call) {
    Reply reply = m_model.Apply(call);
    Send(m_clients.front()->connection, {std::move(call), {Match::Whole, std::move(reply), ""}});
    while (m_clients.front()->connection.Pending() > 0) {
      AwaitReplies();
    }
  }

  void AskForAll() {
    Call({"SectionList", {}});
    Call({"ReadAllJson", {}});
    for (const auto& [name, keys] : Sections(m_model.All())) {
      Call({"KeyList", {name}});
    }
  }

  std::size_t AwaitReplies() {
    std::vector<pollfd> descriptors;
    for (const auto& client : m_clients) {
      descriptors.push_back({client->connection.Descriptor(), POLLIN, 0});
    }
    if (::poll(descriptors.data(), descriptors.size(), kPatienceMilliseconds) <= 0) {
      throw UnexpectedReply("no reply within a minute");
    }
    std::size_t count = 0;
    for (std::size_t i = 0; i < m_clients.size(); ++i) {
      if (descriptors[i].revents != 0) {
        count += m_clients[i]->connection.CheckReplies();
      }
    }
    return count;
  }

  void CheckFile() const {
    std::ifstream file(m_file, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    if (!file || text != m_model.Text()) {
      throw UnexpectedReply("the file differs from the model. It contains:\n" + text);
    }
  }

  const std::string m_file;
  Model m_model;
  std::vector<std::unique_ptr<Client>> m_clients;
  std::size_t m_calls = 0;
  std::size_t m_errors = 0;
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
