// Messages of the D-Bus library made from libdbus's own, so that handlers can be called without a bus.
#pragma once

#include <dbus-c++/message.h>
#include <dbus/dbus.h>

#include <string>
#include <vector>

namespace test_support {

/// A method call as it arrives: with a serial number, and string arguments.
DBus::Message ReceivedCall(const char* interface, const char* member, const std::vector<std::string>& arguments);

/// The libdbus message behind a message of the library; owned by the latter.
DBusMessage* RawMessage(const DBus::Message& message);

const DBus::CallMessage& AsCall(const DBus::Message& message);

}  // namespace test_support
