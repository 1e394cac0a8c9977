// Messages of dbus-c++ made from messages of libdbus, so that tests can call handlers without a bus.
#pragma once

#include <dbus-c++/message.h>
#include <dbus/dbus.h>

#include <string>
#include <vector>

namespace test_support {

/// Returns a method call as a service receives it: with a serial number, and with string arguments.
DBus::Message ReceivedCall(const char* interface, const char* member, const std::vector<std::string>& arguments);

/// Returns the libdbus message in `message`, which still owns it.
DBusMessage* RawMessage(const DBus::Message& message);

const DBus::CallMessage& AsCall(const DBus::Message& message);

}  // namespace test_support
