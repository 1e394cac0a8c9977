// What dbus-c++ does not tell about a message.
#pragma once

namespace DBus {
class Message;
}

/// Whether the caller waits for a reply, i.e. the call does not have the "no reply expected" flag.
bool WantsReply(const DBus::Message& call);
