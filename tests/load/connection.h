// One client's connection to the bus, on libdbus alone. Calls are sent without waiting; replies come in their order.
#pragma once

#include <dbus/dbus.h>

#include <cstdint>
#include <deque>
#include <stdexcept>
#include <string>

#include "tests/load/generator.h"

struct UnexpectedReply : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Connection {
public:
  /// Throws std::runtime_error if the bus does not let it in.
  explicit Connection(const std::string& address);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int Descriptor() const;
  std::size_t Pending() const { return m_pending.size(); }

  void Send(ExpectedCall call);

  /// Checks the replies that are there, without waiting; returns how many. Throws UnexpectedReply.
  std::size_t CheckReplies();

private:
  struct Sent {
    dbus_uint32_t serial;
    ExpectedCall call;
  };

  DBusConnection* m_connection;
  std::deque<Sent> m_pending;
};
