// A connection to the system bus that costs a client as little as libdbus allows: calls are sent and replies taken one
// by one, without pending calls.
#pragma once

#include <dbus/dbus.h>

#include <memory>

struct MessageUnref {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, MessageUnref>;

/// A method call to `service`, whose object path and interface follow from each other in all services measured here.
Message NewCall(const char* service, const char* path, const char* interface, const char* member);

class Connection {
public:
  /// Throws std::runtime_error if there is no bus.
  Connection();
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Sends a copy of the call and returns its serial number.
  dbus_uint32_t Send(DBusMessage* call);

  /// Returns the next reply. Waits for it if `wait`; else returns null if none is there. Throws std::runtime_error for
  /// an error reply and when the bus is gone.
  Message TakeReply(bool wait);

  /// Both: lock-step.
  Message Call(DBusMessage* call);

  int Descriptor() const;

  /// The process that owns the name.
  pid_t OwnerOf(const char* name);

private:
  DBusConnection* m_connection;
};
