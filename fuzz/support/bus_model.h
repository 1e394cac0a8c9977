// The expected replies to D-Bus messages for the registry's object.
#pragma once

#include "fuzz/support/peer_bus.h"
#include "tests/model/registry_model.h"

namespace fuzz {

/// Sends the message and executes it in the model. Requires exactly one reply to a call that expects a reply: that of
/// the model, or an error if D-Bus cannot carry it.
void RequireAnswered(PeerBus& bus, model::RegistryModel& model, DBusMessage& message);

/// Requires that calls return the contents of the model. Skips the keys of a section whose name D-Bus cannot carry.
void RequireContents(PeerBus& bus, model::RegistryModel& model);

}  // namespace fuzz
