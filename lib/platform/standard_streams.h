// Keeps descriptors 0 to 2 for the standard streams, even if the process was started with them closed.
#pragma once

namespace bramble {

/// Opens /dev/null on each of the descriptors 0 to 2 that is closed. Otherwise a file, socket or pipe of the program
/// could get one of them and receive the printed messages. Ignores errors: a stream may stay closed. Must be called
/// first.
void OpenClosedStandardStreams() noexcept;

/// Redirects standard input to /dev/null, and standard output and error to the kernel log. They are line-buffered, so
/// that each line becomes one record of the log. A stream is redirected to /dev/null if its target cannot be opened.
void DetachStandardStreams() noexcept;

}  // namespace bramble
