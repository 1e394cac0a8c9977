// NAND access through a Linux MTD character device.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "lib/hardware/nand_access.h"

/// Opens the MTD device at `path` for reading and synchronous writing. The usable size is the device's, or `size` if
/// that is less; it must be a whole number of erase blocks, anything else is an assertion failure. The device is closed
/// with the last owner. Throws bramble::ErrnoException (with the path if it cannot be opened).
///
/// Read and Write throw bramble::ErrnoException with the contexts "NandBlockAccess::Read", "NandBlockAccess::Write"
/// (seek) and "read_all_throw", and std::runtime_error for a seek that lands elsewhere.
std::shared_ptr<NandAccess> LinuxNandAccessImpl(const std::string& path, std::size_t size);
