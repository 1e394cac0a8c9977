// A persistent store in one file, which is replaced as a whole.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "lib/platform/persistent_store.h"

/// No lock of its own: the lazy store in front of it serialises all calls.
///
/// Read returns the file's text up to its first NUL byte. A file that is missing reads as the empty text, and so does
/// one that cannot be read, with a line on standard error; only exceptions that are no ErrnoException leave it.
///
/// Write throws Full, with the file untouched, or bramble::ErrnoException, with the old file in place and no
/// temporary file left. The new file has the mode given here, not the old file's; only where a crash has left a
/// temporary file does it keep that one's.
class FileStore : public PersistentStore {
public:
  /// `capacity` is in bytes; `mode` is subject to the umask. The file is not touched. Throws std::bad_alloc.
  static std::shared_ptr<FileStore> Create(const std::string& path, std::uint32_t capacity, mode_t mode);
};
