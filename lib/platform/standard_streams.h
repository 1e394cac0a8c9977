// Descriptors 0 to 2 belong to the standard streams, whatever the process was started with.
#pragma once

namespace bramble {

/// Opens /dev/null on each of the descriptors 0 to 2 that is closed, so that no file, socket or pipe of the program
/// gets one of them and then receives what is printed. Failure is ignored: a stream stays closed. Call it first.
void OpenClosedStandardStreams() noexcept;

/// Puts standard input on /dev/null and standard output and error, line-buffered, on the kernel log: each line becomes
/// one record there. A stream whose target cannot be opened goes to /dev/null.
void DetachStandardStreams() noexcept;

}  // namespace bramble
