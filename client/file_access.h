// The owner, the group and the mode that a new file gets from the file that it replaces.
#pragma once

#include <sys/stat.h>

#include <string>

namespace ledgerctl {

/// Gives the new, still private file `fd` the owner, the group and the mode of the file `path`, whose status is `old`.
/// Except for the owner, only users who could read the old file can read the new one: it gets fewer permissions if the
/// group cannot be kept, or if the old file has an access control list. Throws Failure (Local) if the owner cannot be
/// kept. Also throws it if the file belongs to another user and is in a directory like /tmp, in which everybody can
/// create files: that user may have created `path` to read what is written to it.
void KeepAccess(const std::string& path, const struct stat& old, int fd);

}  // namespace ledgerctl
