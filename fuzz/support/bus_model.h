// The expected replies to D-Bus messages for the registry's object, computed by the model of the registry.
#pragma once

#include <dbus/dbus.h>

#include "fuzz/support/peer_bus.h"
#include "fuzz/support/registry_model.h"

namespace fuzz {

/// Sends the message and executes it in the model. Requires exactly one reply to a call that expects a reply: the
/// result of the model, or the error for its exception.
void RequireAnswered(PeerBus& bus, RegistryModel& model, DBusMessage& message);

/// Requires that calls return the contents of the model. Skips the keys of a section whose name D-Bus cannot carry.
void RequireContents(PeerBus& bus, RegistryModel& model);

}  // namespace fuzz
