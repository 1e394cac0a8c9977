#include "lib/platform/posix_helpers.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <utility>

#include "lib/platform/assertion.h"
#include "lib/platform/errno_exception.h"

namespace bramble {
namespace {

constexpr std::size_t kChunk = 512;

// Returns the size of an open file by seeking to its end. Returns 0 if that is not possible, or if the result is not a
// size, as for a directory. Leaves the offset at the start.
std::size_t SizeBySeeking(int fd) {
  const off_t end = ::lseek(fd, 0, SEEK_END);
  if (end < 0) {
    return 0;
  }
  if (::lseek(fd, 0, SEEK_SET) < 0) {
    throw ErrnoException(errno);
  }
  return static_cast<std::uint64_t>(end) > std::string().max_size() ? 0 : static_cast<std::size_t>(end);
}

void WriteFile(const std::string& path, const std::string& text, mode_t mode) {
  FileDescriptor file = Open(path, O_WRONLY | O_CREAT | O_TRUNC, mode);
  write_all_throw(file.Get(), text.data(), text.size());
  file.Close();
}

}  // namespace

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  FileDescriptor old(std::exchange(m_fd, other.Release()));
  return *this;
}

FileDescriptor::~FileDescriptor() {
  if (m_fd >= 0) {
    ::close(m_fd);
  }
}

void FileDescriptor::Close() {
  if (::close(Release()) != 0) {
    throw ErrnoException(errno);
  }
}

int FileDescriptor::Release() noexcept { return std::exchange(m_fd, -1); }

FileDescriptor Open(const std::string& path, int flags, mode_t mode) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
  if (fd < 0) {
    throw ErrnoException(errno, path);
  }
  return FileDescriptor(fd);
}

std::size_t read_all_throw(int fd, void* buffer, std::size_t length, const char* context) {
  std::size_t total = 0;
  while (total < length) {
    const ssize_t n = ::read(fd, static_cast<char*>(buffer) + total, length - total);
    if (n < 0) {
      throw ErrnoException(errno, context);
    }
    if (n == 0) {
      break;
    }
    total += static_cast<std::size_t>(n);
  }
  return total;
}

void write_all_throw(int fd, const void* buffer, std::size_t length) {
  std::size_t total = 0;
  while (total < length) {
    const ssize_t n = ::write(fd, static_cast<const char*>(buffer) + total, length - total);
    if (n < 0) {
      throw ErrnoException(errno);
    }
    BRAMBLE_ASSERT(n != 0);
    total += static_cast<std::size_t>(n);
  }
}

std::string ReadFile(const std::string& path) {
  FileDescriptor file = Open(path, O_RDONLY);
  std::string text(SizeBySeeking(file.Get()), '\0');
  text.resize(read_all_throw(file.Get(), text.data(), text.size()));
  // The file may have grown, or its size may be unknown: read until it ends.
  for (;;) {
    const std::size_t known = text.size();
    text.resize(known + kChunk);
    const std::size_t n = read_all_throw(file.Get(), text.data() + known, kChunk);
    text.resize(known + n);
    if (n < kChunk) {
      return text;
    }
  }
}

void ReplaceFile(const std::string& path, const std::string& text, mode_t mode) {
  if (::access(path.c_str(), W_OK) != 0 && errno != ENOENT) {
    throw ErrnoException(errno);
  }
  const std::string temporary = path + "~~new";
  try {
    WriteFile(temporary, text, mode);
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
      throw ErrnoException(errno);
    }
  } catch (...) {
    ::unlink(temporary.c_str());
    throw;
  }
}

}  // namespace bramble
