#include "dbus/message_access.h"

#include <dbus-c++/message.h>
#include <dbus/dbus.h>

// The library has this definition in a private header. The first member has been the wrapped message in every release.
// If that changes, the tests of calls without a reply fail.
struct DBus::Message::Private {
  DBusMessage* msg;
};

namespace {

// A derived class may access the protected member.
struct MessageAccess : DBus::Message {
  static DBusMessage* Wrapped(const DBus::Message& message) { return (message.*&MessageAccess::_pvt)->msg; }
};

}  // namespace

bool WantsReply(const DBus::Message& call) { return !dbus_message_get_no_reply(MessageAccess::Wrapped(call)); }
