// A D-Bus connection with both ends in this thread and no bus daemon between them. The served end runs in the daemon's
// event loop. Exchange drives the calling end. The same calls always give the same result.
#pragma once

#include <dbus-c++/dbus.h>

#include <memory>
#include <vector>

#include "daemon/dispatcher.h"
#include "tests/model/bus.h"

namespace fuzz {

class PeerBus {
public:
  /// Returns the only instance. It is never destroyed, because the D-Bus library keeps a connection for ever.
  static PeerBus& Instance();

  /// The end on which objects are registered.
  DBus::Connection& ServedEnd() { return *m_served_end; }

  /// Sends the message and then a ping to the served end. Returns all messages that arrive before the answer to the
  /// ping: everything that the message caused. Aborts if the connection is lost.
  std::vector<Message> Exchange(DBusMessage& message);

private:
  PeerBus();

  // Writes and reads as much as possible without waiting.
  void MoveCallingEnd();

  // Calls MoveCallingEnd and moves the messages that have arrived to `received`. Returns whether the answer to `ping`
  // has arrived.
  bool Receive(dbus_uint32_t ping, std::vector<Message>& received);

  Dispatcher m_dispatcher;
  std::unique_ptr<DBus::Connection> m_served_end;
  DBusConnection* m_calling_end = nullptr;
};

}  // namespace fuzz
