// The bootloader's environment: NAME=VALUE strings in a NAND partition, which the program reads and never writes.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>

class NandAccess;

/// Name to value, in ascending byte order of the names.
using CfeEnvironment = std::map<std::string, std::string>;

/// Parses the records of one erase block. A block that begins with 0xFF (erased) or 0 is an empty environment; the last
/// of several records of one name counts; a record without "=" is skipped with a line on standard error. Never reads
/// outside the `length` bytes at `data`. Throws std::runtime_error for a truncated or unknown record.
CfeEnvironment ParseCfeEnvironment(const unsigned char* data, std::size_t length);

/// Reads and parses the first good block of the partition; later blocks are never consulted. Throws std::runtime_error
/// if all blocks are bad, and what ParseCfeEnvironment and `nand` throw.
CfeEnvironment ReadCfeEnvironment(NandAccess& nand);

/// Returns what `read` returns; if it throws, prints that the environment is corrupt and returns an empty one.
CfeEnvironment ReadCfeEnvironmentOrEmpty(const std::function<CfeEnvironment()>& read);

/// The environment of this device, from the partition "flash0.nvram". The first call of the process reads the flash and
/// keeps the result, also that of a failure (see ReadCfeEnvironmentOrEmpty); all calls return copies. Any thread may
/// call it; it holds one process-wide lock, during the first call for as long as the flash takes.
CfeEnvironment GetCfeEnvironment();
