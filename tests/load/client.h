// A client of the load. It sends calls without waiting, predicts each reply, and compares the replies with the
// predictions. They must arrive in the order of the calls.
#pragma once

#include <cstdint>
#include <deque>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/model/bus.h"

struct UnexpectedReply : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Client {
public:
  /// The client has its own sections. Their text is at most `budget` bytes long, so that all clients together never
  /// fill the registry. Throws std::runtime_error if the bus does not accept the connection.
  Client(const std::string& address, unsigned number, std::size_t budget, std::uint64_t seed);

  int Descriptor() const { return m_connection.Descriptor(); }
  std::size_t Pending() const { return m_sent.size(); }

  /// Sends a random call.
  void SendNext();

  /// Sends a call with a known reply. A partial reply has only the own sections.
  void Send(const model::Call& call, const model::Reply& expected, bool is_partial = false);

  /// Checks the replies that have arrived and returns their number. Does not wait. Throws UnexpectedReply.
  std::size_t CheckReplies();

  /// The number of sent calls whose expected reply is an error.
  std::size_t Errors() const { return m_errors; }

  /// Returns the text of the own sections.
  const std::string& Text() const { return m_model.AcceptedText(); }

  /// Call this after all sections have been deleted.
  void ForgetSections() { m_model = model::RegistryModel(); }

private:
  struct Sent {
    dbus_uint32_t serial;
    model::Call call;
    model::Reply expected;
    bool is_partial;
  };

  bool IsRight(const Sent& sent, const model::Reply& reply) const;

  const std::string m_prefix;
  const std::size_t m_budget;
  Connection m_connection;
  std::mt19937_64 m_random;
  model::RegistryModel m_model;  // knows the own sections
  std::deque<Sent> m_sent;
  std::size_t m_errors = 0;
};
