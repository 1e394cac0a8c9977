// Functions that dbus-c++ lacks: one reads a flag of a call, the others append a result to a reply and report a lack of
// memory.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace DBus {
class Message;
}

/// Returns whether the caller expects a reply: the call does not have the flag NO_REPLY_EXPECTED.
bool WantsReply(const DBus::Message& call);

/// These append the result to a reply that has none. ReplyCheck must have accepted the strings. They throw
/// std::bad_alloc if memory runs out; the reply must then not be sent.
void AppendResult(DBus::Message& reply, bool result);
void AppendResult(DBus::Message& reply, const std::string& result);
void AppendResult(DBus::Message& reply, const std::vector<std::string>& result);
void AppendResult(DBus::Message& reply, const std::map<std::string, std::string>& result);
