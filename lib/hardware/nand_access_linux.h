// NAND access through a Linux MTD character device.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "lib/hardware/nand_access.h"

/// Opens the MTD device at `path` for reading and synchronous writing. The usable size is that of the device, or `size`
/// if that is smaller. It is an assertion failure if that is not a whole number of erase blocks. The last owner closes
/// the device. Throws bramble::ErrnoException, with the path if the device cannot be opened.
///
/// Read and Write throw bramble::ErrnoException with the contexts "NandBlockAccess::Read", "NandBlockAccess::Write"
/// (seek) and "read_all_throw", and std::runtime_error if a seek returns another offset.
std::shared_ptr<NandAccess> LinuxNandAccessImpl(const std::string& path, std::size_t size);
