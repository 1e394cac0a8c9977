// The processor time that a process has used, all its threads together.
#pragma once

#include <sys/types.h>

#include <cstdint>

/// Waits until every thread of the process sleeps, so that the kernel's account is complete; then returns nanoseconds,
/// the kernel's work for the process included. Throws std::runtime_error if the process is gone or never rests.
std::uint64_t CpuTime(pid_t process);
