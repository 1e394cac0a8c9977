#include "lib/platform/trace.h"

#include <termios.h>

#include <csignal>

namespace bramble {
namespace {

void DrainStandardError() {
  std::fflush(stderr);
  // If the terminal belongs to another process group, draining it would stop this process with SIGTTOU.
  sigset_t stopping;
  sigset_t before;
  ::sigemptyset(&stopping);
  ::sigaddset(&stopping, SIGTTOU);
  ::pthread_sigmask(SIG_BLOCK, &stopping, &before);
  ::tcdrain(::fileno(stderr));
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace

StderrTrace::~StderrTrace() { DrainStandardError(); }

void StderrTrace::Emit(const std::string& text) { std::fputs(text.c_str(), stderr); }

void StderrTrace::Flush() { DrainStandardError(); }

FileTrace::~FileTrace() { std::fclose(m_file); }

void FileTrace::Emit(const std::string& text) { std::fputs(text.c_str(), m_file); }

void FileTrace::Flush() { std::fflush(stderr); }

}  // namespace bramble
