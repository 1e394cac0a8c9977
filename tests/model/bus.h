// D-Bus messages as the calls and replies of the model, and a connection to send them.
#pragma once

#include <dbus/dbus.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/model/registry_model.h"

struct MessageUnref {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, MessageUnref>;

/// Returns a call to the registry's object.
Message NewCall(const model::Call& call);

/// Returns the first arguments of the call, up to the first that is not a string.
std::vector<std::string> ArgumentsOf(DBusMessage& call);

/// Throws std::runtime_error if the reply has values that are neither strings nor booleans.
model::Reply ReplyOf(DBusMessage& message);

/// A client connection to a message bus that costs as little as libdbus allows: it sends calls and reads replies one by
/// one, without pending calls. One thread uses each connection.
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
