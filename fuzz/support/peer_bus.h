// A D-Bus connection of which both ends are in this thread, without a bus between them: the served end runs in the
// daemon's event loop, the calling end is moved along by hand. Every run of the same calls is the same.
#pragma once

#include <dbus-c++/dbus.h>
#include <dbus/dbus.h>

#include <memory>
#include <vector>

#include "daemon/dispatcher.h"

namespace fuzz {

struct MessageUnref {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, MessageUnref>;

class PeerBus {
public:
  /// The only one of the process, which is never destroyed: the D-Bus library keeps what it has once connected.
  static PeerBus& Instance();

  /// Where objects are registered.
  DBus::Connection& ServedEnd() { return *m_served_end; }

  /// Sends the message to the served end, and returns the messages that come back before the answer to a ping behind
  /// it: all that the message brought about. The connection must survive it.
  std::vector<Message> Exchange(DBusMessage& message);

private:
  PeerBus();

  // Writes and reads what can be without waiting.
  void MoveCallingEnd();

  // Does so, and moves what has arrived to `received`. Returns whether the answer to `ping` was among it.
  bool Receive(dbus_uint32_t ping, std::vector<Message>& received);

  Dispatcher m_dispatcher;
  std::unique_ptr<DBus::Connection> m_served_end;
  DBusConnection* m_calling_end = nullptr;
};

}  // namespace fuzz
