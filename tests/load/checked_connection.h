// A connection to the daemon that compares every reply with the expected reply. It sends calls without waiting. The
// replies must arrive in the order of the calls.
#pragma once

#include <cstdint>
#include <deque>
#include <stdexcept>
#include <string>

#include "tests/load/connection.h"
#include "tests/load/generator.h"

struct UnexpectedReply : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class CheckedConnection {
public:
  /// Throws std::runtime_error if the bus does not accept the connection.
  explicit CheckedConnection(const std::string& address) : m_connection(address) {}

  int Descriptor() const { return m_connection.Descriptor(); }
  std::size_t Pending() const { return m_pending.size(); }

  void Send(ExpectedCall call);

  /// Checks the replies that have arrived and returns their number. Does not wait. Throws UnexpectedReply.
  std::size_t CheckReplies();

private:
  struct Sent {
    dbus_uint32_t serial;
    ExpectedCall call;
  };

  Connection m_connection;
  std::deque<Sent> m_pending;
};
