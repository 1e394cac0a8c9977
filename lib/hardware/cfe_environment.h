// The environment of the bootloader: NAME=VALUE strings in a NAND partition. The program only reads it.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>

class NandAccess;

/// Maps names to values, in ascending byte order of the names.
using CfeEnvironment = std::map<std::string, std::string>;

/// Parses the records of one erase block. A block that begins with 0xFF (erased) or 0 is an empty environment. The last
/// record of a name wins. A record without "=" is skipped, and a line on standard error reports it. Never reads outside
/// the `length` bytes at `data`. Throws std::runtime_error for a truncated or unknown record.
CfeEnvironment ParseCfeEnvironment(const unsigned char* data, std::size_t length);

/// Reads and parses the first good block of the partition. Never reads a later block. Throws std::runtime_error if all
/// blocks are bad, and the exceptions of ParseCfeEnvironment and of `nand`.
CfeEnvironment ReadCfeEnvironment(NandAccess& nand);

/// Returns the result of `read`. If `read` throws, prints that the environment is corrupt and returns an empty one.
CfeEnvironment ReadCfeEnvironmentOrEmpty(const std::function<CfeEnvironment()>& read);

/// Returns the environment of this device, from the partition "flash0.nvram". The first call in the process reads the
/// flash and keeps the result, even the empty one after a failure (see ReadCfeEnvironmentOrEmpty). All calls return
/// copies. Thread-safe: each call takes a process-wide lock, and the first call holds it while it reads the flash.
CfeEnvironment GetCfeEnvironment();
