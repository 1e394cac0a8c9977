// A client connection to a message bus that costs as little as libdbus allows: it sends calls and reads replies one by
// one, without pending calls. The load client and the benchmark use it. One thread uses each connection.
#pragma once

#include <string>

#include "tests/model/bus_message.h"

class Connection {
public:
  /// Throws std::runtime_error if the bus at `address` does not accept the connection.
  explicit Connection(const std::string& address);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  int Descriptor() const;

  /// Sends the call and returns its serial number. A call can be sent only once.
  dbus_uint32_t Send(DBusMessage* call);

  /// Returns the next reply, which may be an error. If `wait` is false and there is no reply, returns null. Throws
  /// std::runtime_error if the bus has closed the connection.
  Message TakeReply(bool wait);

  /// Sends the call and waits for its reply. Throws std::runtime_error if the reply is an error.
  Message Call(DBusMessage* call);

private:
  DBusConnection* m_connection;
};
