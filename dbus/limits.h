// The limits of a D-Bus message, for the daemon and the client. Depends on nothing.
#pragma once

#include <cstddef>

/// The size in bytes of the longest arguments of a message. It is the default limit of a system bus for a message, 32
/// MiB, less 64 KiB for the header. The bus disconnects the sender of a longer message.
constexpr std::size_t kLongestArguments = 32 * 1024 * 1024 - 64 * 1024;
