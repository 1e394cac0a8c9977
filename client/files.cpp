#include "client/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "client/failure.h"
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
  bramble::FileDescriptor file = bramble::Open(path, O_WRONLY | O_NOCTTY);
  bramble::write_all_throw(file.Get(), text.data(), text.size());
  file.Close();
}

// The file behind symbolic links; the path itself if there is none yet.
std::string Resolved(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
  return resolved != nullptr ? resolved.get() : path;
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
  if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    try {
      WriteTo(path, text);
    } catch (const bramble::ErrnoException& e) {
      throw LocalFailure(ShownSource(path), e.ErrorNumber());
    }
    return;
  }
  const std::string target = Resolved(path);
  TemporaryFile file = TemporaryFile::Beside(target);
  file.WriteAndClose(text);
  file.RenameTo(target);
}

}  // namespace ledgerctl
