// Properties of a message that dbus-c++ does not offer.
#pragma once

namespace DBus {
class Message;
}

/// Returns whether the caller expects a reply: the call does not have the flag NO_REPLY_EXPECTED.
bool WantsReply(const DBus::Message& call);
