#include "fuzz/support/bus_model.h"

#include <algorithm>
#include <cstring>

#include "fuzz/support/fuzzer.h"
#include "tests/model/json.h"

namespace fuzz {
namespace {

constexpr std::size_t kLongestErrorText = 4000;

// Only the beginnings of these are fixed. The library chooses the error for an unknown object, interface or method.
const model::Reply kUnknown{"error", {"org.freedesktop.DBus.Error.Unknown"}};
const model::Reply kDescription{"s", {"<!DOCTYPE node"}};

bool CanBeCarried(const std::string& text) { return text.find('\0') == std::string::npos && model::IsUtf8(text); }

bool HasInterface(DBusMessage& call, const char* interface) {
  return dbus_message_get_interface(&call) == nullptr || dbus_message_has_interface(&call, interface);
}

// Executes a call to the registry's object in the model.
model::Reply Expected(model::RegistryModel& model, DBusMessage& call) {
  const std::string member = dbus_message_get_member(&call);
  if (HasInterface(call, "com.tavimesh.Registry") && model::kMethods.count(member) != 0) {
    const model::Reply reply = model.Apply({member, ArgumentsOf(call)});
    const bool is_carried = reply.type == "error" || std::all_of(reply.items.begin(), reply.items.end(), CanBeCarried);
    return is_carried ? reply : model::RegistryError({"Exception", "D-Bus cannot carry the "});
  }
  return HasInterface(call, DBUS_INTERFACE_INTROSPECTABLE) && member == "Introspect" ? kDescription : kUnknown;
}

void RequireReply(const model::Reply& reply, const model::Reply& expected, const std::string& member) {
  if (reply.type == "error") {
    Require(reply.items.size() == 2, "an error has a text");
    const std::string& text = reply.items[1];
    Require(text.size() <= kLongestErrorText, "the text of an error is short");
    Require(std::all_of(text.begin(), text.end(), [](char c) { return (c & 0x80) == 0; }), "the text is ASCII");
  }
  for (const model::Reply& beginning : {kUnknown, kDescription}) {
    if (expected.items == beginning.items) {
      const std::string begins = reply.items.empty() ? "" : reply.items[0].substr(0, beginning.items[0].size());
      RequireExpected({reply.type, {begins}}, beginning, member);
      return;
    }
  }
  RequireExpected(reply, expected, member);
}

}  // namespace

void RequireAnswered(PeerBus& bus, model::RegistryModel& model, DBusMessage& message) {
  const std::vector<Message> replies = bus.Exchange(message);
  for (const Message& reply : replies) {
    Require(dbus_message_get_reply_serial(reply.get()) == dbus_message_get_serial(&message),
            "a reply refers to the call");
  }
  const bool is_call = dbus_message_get_type(&message) == DBUS_MESSAGE_TYPE_METHOD_CALL;
  if (dbus_message_has_interface(&message, DBUS_INTERFACE_PEER) ||
      (is_call && !dbus_message_has_path(&message, "/com/tavimesh/Registry"))) {
    // libdbus itself answers messages for the Peer interface and calls to objects that do not exist.
    Require(replies.size() <= 1, "a message gets at most one reply");
    return;
  }
  const model::Reply expected = is_call ? Expected(model, message) : model::Reply();
  const bool has_reply = is_call && !dbus_message_get_no_reply(&message);
  Require(replies.size() == (has_reply ? 1 : 0), "a call that expects a reply gets one, other messages get none");
  if (has_reply) {
    RequireReply(ReplyOf(*replies.front()), expected, dbus_message_get_member(&message));
  }
}

void RequireContents(PeerBus& bus, model::RegistryModel& model) {
  for (const model::Call& call : model.CallsForContents()) {
    if (std::all_of(call.arguments.begin(), call.arguments.end(), CanBeCarried)) {
      RequireAnswered(bus, model, *NewCall(call));
    }
  }
}

}  // namespace fuzz
