// A persistent store in one file, which is replaced atomically.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "lib/platform/persistent_store.h"

/// Has no lock: the lazy store that owns it serialises all calls.
///
/// Read returns the text of the file up to its first NUL byte. Returns the empty text if the file is missing or cannot
/// be read; in the second case it also prints a line on standard error. Never throws ErrnoException.
///
/// Write throws Full or bramble::ErrnoException. The old file is then unchanged, and no temporary file is left. The new
/// file has the mode of the store, not that of the old file. But if a crash has left a temporary file, the new file has
/// the mode of that one.
class FileStore : public PersistentStore {
public:
  /// `capacity` is in bytes; `mode` is subject to the umask. Does not access the file. Throws std::bad_alloc.
  static std::shared_ptr<FileStore> Create(const std::string& path, std::uint32_t capacity, mode_t mode);
};
