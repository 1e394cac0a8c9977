// D-Bus messages as the calls and replies of the model.
#pragma once

#include <dbus/dbus.h>

#include <memory>

#include "tests/model/registry_model.h"

struct MessageUnref {
  void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using Message = std::unique_ptr<DBusMessage, MessageUnref>;

/// Returns a call to the registry's object.
Message NewCall(const model::Call& call);

/// Returns the first arguments of the call, up to the first that is not a string.
std::vector<std::string> ArgumentsOf(DBusMessage& call);

/// Throws std::runtime_error if the reply has values that are neither strings nor booleans.
model::Reply ReplyOf(DBusMessage& message);
