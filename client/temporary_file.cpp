#include "client/temporary_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <utility>

#include "client/ending_signals.h"
#include "client/failure.h"
#include "lib/platform/errno_exception.h"

namespace ledgerctl {
namespace {

// Written while the signals whose handlers read it are blocked.
std::array<char, PATH_MAX> g_path;
volatile std::sig_atomic_t g_holds_work = 0;

void Settle(int) { SettleTemporaryFile(); }

void Register(const std::string& path) {
  const BlockedSignals blocked;
  g_path[path.copy(g_path.data(), g_path.size() - 1)] = '\0';
  g_holds_work = 0;
}

void SyncDirectoryOf(const std::string& path) {
  const std::string directory = DirectoryOf(path);
  const bramble::FileDescriptor fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Some file systems do not sync directories.
  if (!fd.IsOpen() || (::fsync(fd.Get()) != 0 && errno != EINVAL)) {
    throw LocalFailure(directory, errno);
  }
}

}  // namespace

std::string DirectoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

void SettleTemporaryFile() noexcept {
  if (g_holds_work != 0) {
    for (const std::string_view part : {kKeptText, std::string_view(g_path.data()), std::string_view("\n")}) {
      [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, part.data(), part.size());
    }
  } else if (g_path[0] != '\0') {
    ::unlink(g_path.data());
  }
}

TemporaryFile::TemporaryFile(std::string path, bramble::FileDescriptor file)
    : m_path(std::move(path)), m_file(std::move(file)) {}

TemporaryFile TemporaryFile::Beside(const std::string& path) {
  const std::string temporary = path + "." + std::to_string(::getpid()) + "~";
  CatchEndingSignals(Settle);
  // Registered first: a signal may arrive after the file exists. No other process has this number, so a file of this
  // name is the rest of a process that was killed.
  Register(temporary);
  ::unlink(temporary.c_str());
  bramble::FileDescriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file.IsOpen()) {
    throw LocalFailure(path, errno);
  }
  return {temporary, std::move(file)};
}

TemporaryFile TemporaryFile::Private() {
  const char* const directory = std::getenv("TMPDIR");
  std::string path = std::string(directory != nullptr && *directory != '\0' ? directory : "/tmp") + "/ledgerctl-XXXXXX";
  CatchEndingSignals(Settle);
  // The name is known only after the file exists.
  const BlockedSignals blocked;
  bramble::FileDescriptor file(::mkostemp(path.data(), O_CLOEXEC));
  if (!file.IsOpen()) {
    throw LocalFailure(path, errno);
  }
  Register(path);
  return {path, std::move(file)};
}

TemporaryFile::TemporaryFile(TemporaryFile&& other) noexcept
    : m_path(std::exchange(other.m_path, "")), m_file(std::move(other.m_file)) {}

TemporaryFile::~TemporaryFile() {
  if (!m_path.empty()) {
    ::unlink(m_path.c_str());
    Register("");
  }
}

void TemporaryFile::WriteAndClose(const std::string& text) {
  try {
    bramble::write_all_throw(m_file.Get(), text.data(), text.size());
    if (::fsync(m_file.Get()) != 0) {
      throw LocalFailure(m_path, errno);
    }
    m_file.Close();
  } catch (const bramble::ErrnoException& e) {
    throw LocalFailure(m_path, e.ErrorNumber());
  }
}

void TemporaryFile::RenameTo(const std::string& path) {
  if (::rename(m_path.c_str(), path.c_str()) != 0) {
    throw LocalFailure(path, errno);
  }
  Keep();
  SyncDirectoryOf(path);
}

void TemporaryFile::HoldWork() { g_holds_work = 1; }

void TemporaryFile::Keep() {
  Register("");
  m_path.clear();
}

}  // namespace ledgerctl
