#include "tests/unit/dbus/wrapped_message.h"

// The same definition as in the private header of the library.
struct DBus::Message::Private {
  DBusMessage* msg;
};

namespace test_support {
namespace {

struct MessageAccess : DBus::Message {
  static DBusMessage* Wrapped(const DBus::Message& message) { return (message.*&MessageAccess::_pvt)->msg; }
};

}  // namespace

DBus::Message ReceivedCall(const char* interface, const char* member, const std::vector<std::string>& arguments) {
  DBusMessage* const raw = dbus_message_new_method_call("com.example", "/com/tavimesh/Registry", interface, member);
  dbus_message_set_serial(raw, 1);
  DBusMessageIter iterator;
  dbus_message_iter_init_append(raw, &iterator);
  for (const std::string& argument : arguments) {
    const char* text = argument.c_str();
    dbus_message_iter_append_basic(&iterator, DBUS_TYPE_STRING, &text);
  }
  return DBus::Message(new DBus::Message::Private{raw}, false);
}

DBusMessage* RawMessage(const DBus::Message& message) { return MessageAccess::Wrapped(message); }

const DBus::CallMessage& AsCall(const DBus::Message& message) {
  return reinterpret_cast<const DBus::CallMessage&>(message);
}

}  // namespace test_support
