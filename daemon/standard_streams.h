// Descriptors 0 to 2 belong to the standard streams, whatever the process was started with.
#pragma once

/// Opens /dev/null on each of the descriptors 0 to 2 that is closed, so that no file, socket or pipe of the program
/// gets one of them and then receives what is printed. Failure is ignored: a stream stays closed. Call it first.
void OpenClosedStandardStreams() noexcept;
