#include "client/file_access.h"

#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>

#include "client/failure.h"
#include "client/quote_word.h"
#include "client/temporary_file.h"

namespace ledgerctl {
namespace {

constexpr char kAccessList[] = "system.posix_acl_access";

bool IsNoAccessList(int error) { return error == ENODATA || error == EOPNOTSUPP; }

bool HasAccessList(const std::string& path) {
  return ::getxattr(path.c_str(), kAccessList, nullptr, 0) >= 0 || !IsNoAccessList(errno);
}

// A directory can give its new files an access control list. It has no effect while the mode is 0600.
void RemoveAccessList(const std::string& path, int fd) {
  if (::fremovexattr(fd, kAccessList) != 0 && !IsNoAccessList(errno)) {
    throw LocalFailure(QuoteWord(path), errno);
  }
}

void CheckOwner(const std::string& path, const struct stat& old) {
  struct stat directory {};
  if (::stat(DirectoryOf(path).c_str(), &directory) != 0) {
    throw LocalFailure(QuoteWord(path), errno);
  }
  constexpr mode_t kShared = S_ISVTX | S_IWOTH;
  if ((directory.st_mode & kShared) == kShared && old.st_uid != ::geteuid() && old.st_uid != directory.st_uid) {
    throw Failure(ExitStatus::Local,
                  QuoteWord(path) + ": belongs to another user, in a directory that everybody can write to");
  }
}

// Members of the old group are among the others of the new file, and others of the old file may be in its group. So
// both get only what both had.
mode_t ModeInAnotherGroup(mode_t mode) {
  const mode_t both = mode >> 3 & mode & S_IRWXO;
  return (mode & S_IRWXU) | both << 3 | both;
}

}  // namespace

void KeepAccess(const std::string& path, const struct stat& old, int fd) {
  CheckOwner(path, old);
  RemoveAccessList(path, fd);
  struct stat made {};
  if (::fstat(fd, &made) != 0) {
    throw LocalFailure(QuoteWord(path), errno);
  }
  if (made.st_uid != old.st_uid && ::fchown(fd, old.st_uid, static_cast<gid_t>(-1)) != 0) {
    throw LocalFailure(QuoteWord(path) + ": its owner cannot be kept", errno);
  }
  constexpr mode_t kPermissions = S_IRWXU | S_IRWXG | S_IRWXO;
  mode_t mode = old.st_mode & kPermissions;
  if (made.st_gid != old.st_gid && ::fchown(fd, static_cast<uid_t>(-1), old.st_gid) != 0) {
    mode = ModeInAnotherGroup(mode);
  }
  if (HasAccessList(path)) {
    mode &= S_IRWXU;
  }
  // A file system without modes refuses to set one.
  if ((made.st_mode & kPermissions) != mode && ::fchmod(fd, mode) != 0) {
    throw LocalFailure(QuoteWord(path), errno);
  }
}

}  // namespace ledgerctl
