// The processor time of a process.
#pragma once

#include <sys/types.h>

#include <cstdint>

/// Waits until every thread of the process sleeps, because only then the kernel's figures are complete. Returns the
/// nanoseconds of all threads, including the work of the kernel for them. Throws std::runtime_error if the process has
/// ended or does not become idle.
std::uint64_t CpuTime(pid_t process);
