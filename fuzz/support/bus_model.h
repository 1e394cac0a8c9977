// What shall come back from the bus for a message to the registry's object, told by the model of the registry.
#pragma once

#include <dbus/dbus.h>

#include "fuzz/support/peer_bus.h"
#include "fuzz/support/registry_model.h"

namespace fuzz {

/// Sends the message, lets the model do what it asks for, and requires that what comes back is what must: for a call
/// that wants a reply exactly one, with the model's result or the error that stands for its exception.
void RequireAnswered(PeerBus& bus, RegistryModel& model, DBusMessage& message);

/// Requires that calls show the model's contents, as far as D-Bus can carry them.
void RequireContents(PeerBus& bus, RegistryModel& model);

}  // namespace fuzz
