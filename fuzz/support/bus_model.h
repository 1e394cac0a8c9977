// What shall come back from the bus for a message to the registry's object, told by the model of the registry.
#pragma once

#include <dbus/dbus.h>

#include <string>
#include <vector>

#include "fuzz/support/peer_bus.h"
#include "fuzz/support/registry_model.h"

namespace fuzz {

/// Lets the model do what the message asks for, and requires that `replies` are what must come back: for a call that
/// wants a reply exactly one, with the model's result or the error that stands for its exception.
void RequireReplies(RegistryModel& model, DBusMessage& message, const std::vector<Message>& replies);

/// Sends the message and requires the replies as above, and that the registry then has the model's contents, as far as
/// D-Bus can carry them.
void RequireAnswered(PeerBus& bus, RegistryModel& model, DBusMessage& message);

}  // namespace fuzz
