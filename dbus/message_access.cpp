#include "dbus/message_access.h"

#include <dbus-c++/message.h>
#include <dbus/dbus.h>

// The library keeps this definition in a private header. Its first member has been the wrapped message in every
// release; the tests of calls without reply fail should that ever change.
struct DBus::Message::Private {
  DBusMessage* msg;
};

namespace {

// Reaches the protected member through a derived class, which may name it.
struct MessageAccess : DBus::Message {
  static DBusMessage* Wrapped(const DBus::Message& message) { return (message.*&MessageAccess::_pvt)->msg; }
};

}  // namespace

bool WantsReply(const DBus::Message& call) { return !dbus_message_get_no_reply(MessageAccess::Wrapped(call)); }
