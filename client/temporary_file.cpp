#include "client/temporary_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <utility>

#include "client/failure.h"
#include "lib/platform/errno_exception.h"

namespace ledgerctl {
namespace {

// Written with the signals blocked that look at it.
std::array<char, PATH_MAX> g_path;
volatile std::sig_atomic_t g_holds_work = 0;

extern "C" void OnEndingSignal(int signal) {
  SettleTemporaryFile();
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

constexpr int kEndingSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

void CatchEndingSignals() {
  for (const int signal : kEndingSignals) {
    // What was ignored stays so: nohup.
    if (::signal(signal, SIG_IGN) != SIG_IGN) {
      ::signal(signal, OnEndingSignal);
    }
  }
}

void Register(const std::string& path) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  ::sigprocmask(SIG_BLOCK, &all, &before);
  g_path[path.copy(g_path.data(), g_path.size() - 1)] = '\0';
  g_holds_work = 0;
  ::sigprocmask(SIG_SETMASK, &before, nullptr);
}

void SyncFolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const bramble::FileDescriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Some file systems do not sync folders.
  if (!fd.IsOpen() || (::fsync(fd.Get()) != 0 && errno != EINVAL)) {
    throw LocalFailure(folder, errno);
  }
}

}  // namespace

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
  CatchEndingSignals();
  // Registered first: a signal may come between. A file that is in the way is nobody's: the process has this number
  // now.
  Register(temporary);
  ::unlink(temporary.c_str());
  bramble::FileDescriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
  if (!file.IsOpen()) {
    throw LocalFailure(path, errno);
  }
  return {temporary, std::move(file)};
}

TemporaryFile TemporaryFile::Private() {
  const char* const folder = std::getenv("TMPDIR");
  std::string path = std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") + "/ledgerctl-XXXXXX";
  CatchEndingSignals();
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  // The name is known only afterwards.
  ::sigprocmask(SIG_BLOCK, &all, &before);
  bramble::FileDescriptor file(::mkostemp(path.data(), O_CLOEXEC));
  const int error = errno;
  if (file.IsOpen()) {
    Register(path);
  }
  ::sigprocmask(SIG_SETMASK, &before, nullptr);
  if (!file.IsOpen()) {
    throw LocalFailure(path, error);
  }
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
  SyncFolderOf(path);
}

void TemporaryFile::HoldWork() { g_holds_work = 1; }

void TemporaryFile::Keep() {
  Register("");
  m_path.clear();
}

}  // namespace ledgerctl
