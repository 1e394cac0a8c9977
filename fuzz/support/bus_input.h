// D-Bus messages made from the fields of a fuzzer's input.
#pragma once

#include "fuzz/support/fuzzer.h"
#include "fuzz/support/peer_bus.h"

namespace fuzz {

/// Reads a message from the input: a field with the member, a field with letters for the properties below, a field with
/// the signature of the arguments, then one field for each basic value. Returns null if the message cannot be sent.
///
///     n  expects no reply      i  no interface               p  for the parent of the object
///     s  signal                I  interface Introspectable   c  for a child of the object
///     r  method return         P  interface Properties       b  repeats each string 128 times
///     e  error                 R  interface Peer             x  unknown interface
Message TakeMessage(Input& input);

}  // namespace fuzz
