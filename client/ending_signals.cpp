#include "client/ending_signals.h"

namespace ledgerctl {
namespace {

constexpr int kEndingSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

void (*g_before_end)(int signal) = nullptr;

extern "C" void OnEndingSignal(int signal) {
  g_before_end(signal);
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

}  // namespace

void CatchEndingSignals(void (*before_end)(int signal)) {
  const BlockedSignals blocked;
  g_before_end = before_end;
  for (const int signal : kEndingSignals) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    // "nohup" ignores one of them, a shell two for a command in the background.
    if (action.sa_handler != SIG_IGN) {
      ::signal(signal, OnEndingSignal);
    }
  }
}

BlockedSignals::BlockedSignals() {
  sigset_t all;
  sigfillset(&all);
  ::sigprocmask(SIG_BLOCK, &all, &m_before);
}

BlockedSignals::~BlockedSignals() { ::sigprocmask(SIG_SETMASK, &m_before, nullptr); }

}  // namespace ledgerctl
