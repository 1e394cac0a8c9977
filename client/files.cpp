#include "client/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "client/failure.h"
#include "client/file_access.h"
#include "client/quote_word.h"
#include "client/temporary_file.h"
#include "lib/platform/errno_exception.h"
#include "lib/platform/posix_helpers.h"

namespace ledgerctl {
namespace {

std::string ReadDescriptor(int fd) {
  constexpr std::size_t kPiece = std::size_t{64} * 1024;
  std::string text;
  for (;;) {
    const std::size_t known = text.size();
    text.resize(known + kPiece);
    const std::size_t n = bramble::read_all_throw(fd, text.data() + known, kPiece);
    text.resize(known + n);
    if (n < kPiece) {
      return text;
    }
  }
}

void WriteTo(const std::string& path, const std::string& text) {
  try {
    bramble::FileDescriptor file = bramble::Open(path, O_WRONLY | O_NOCTTY);
    bramble::write_all_throw(file.Get(), text.data(), text.size());
    file.Close();
  } catch (const bramble::ErrnoException& e) {
    throw LocalFailure(ShownSource(path), e.ErrorNumber());
  }
}

// False if there is no file. A symbolic link that leads to none is a failure: a file in its place would hide it.
bool FindStatus(const std::string& path, struct stat& status) {
  if (::stat(path.c_str(), &status) == 0) {
    return true;
  }
  const int error = errno;
  struct stat link {};
  if (error != ENOENT || ::lstat(path.c_str(), &link) == 0) {
    throw LocalFailure(ShownSource(path), error);
  }
  return false;
}

// The path of the file of `status` without symbolic links. The kernel can forbid to follow a link, and stat asks it but
// realpath does not: so both must have found the same file.
std::string Resolve(const std::string& path, const struct stat& status) {
  const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
  struct stat found {};
  if (resolved == nullptr || ::lstat(resolved.get(), &found) != 0) {
    throw LocalFailure(ShownSource(path), errno);
  }
  if (found.st_dev != status.st_dev || found.st_ino != status.st_ino) {
    throw Failure(ExitStatus::Local, ShownSource(path) + ": another program has replaced it meanwhile");
  }
  return resolved.get();
}

void Replace(const std::string& path, const struct stat* old, const std::string& text) {
  TemporaryFile file = TemporaryFile::Beside(path);
  if (old != nullptr) {
    KeepAccess(path, *old, file.Fd());
  }
  file.WriteAndClose(text);
  file.RenameTo(path);
}

}  // namespace

std::string ReadDocument(const std::string& path) {
  try {
    return path == "-" ? ReadDescriptor(STDIN_FILENO) : bramble::ReadFile(path);
  } catch (const bramble::ErrnoException& e) {
    throw LocalFailure(ShownSource(path), e.ErrorNumber());
  }
}

std::string ShownSource(const std::string& path) { return path == "-" ? "standard input" : QuoteWord(path); }

void ReplaceDocument(const std::string& path, const std::string& text) {
  struct stat status {};
  if (!FindStatus(path, status)) {
    Replace(path, nullptr, text);
  } else if (S_ISREG(status.st_mode)) {
    Replace(Resolve(path, status), &status, text);
  } else {
    WriteTo(path, text);
  }
}

}  // namespace ledgerctl
