// D-Bus messages from a fuzzer's fields.
#pragma once

#include "fuzz/support/input.h"
#include "fuzz/support/peer_bus.h"

namespace fuzz {

/// Takes a message: fields with the member, with letters for what is special about the message, with the signature of
/// its arguments, and then one for each basic value. Returns null for one that cannot be sent.
///
///     n  wants no reply            i  names no interface         p  is for the parent of the object
///     s  is a signal               I  names Introspectable       c  is for a child of the object
///     r  is a method's return      P  names Properties           b  has each string a hundred times over
///     e  is an error               R  names Peer                 x  names an unknown interface
Message TakeMessage(Input& input);

}  // namespace fuzz
