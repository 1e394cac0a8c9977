// Who may read and write a file: what a new file keeps of the file that it replaces.
#pragma once

#include <sys/stat.h>

#include <string>

namespace ledgerctl {

/// Gives the new, still private file `fd` the owner, the group and the mode of the file `path`, whose status is `old`.
/// Nobody but the owner can read the new file who could not read the old one: it gets fewer permissions if its group
/// cannot be kept, or if the old file has an access control list. Throws Failure (Local) if the owner cannot be kept,
/// or must not be: where everybody can make files, another user may have made `path` to read what is written to it.
void KeepAccess(const std::string& path, const struct stat& old, int fd);

}  // namespace ledgerctl
