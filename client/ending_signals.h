// The signals that a user or a system sends to end a program: SIGHUP, SIGINT, SIGQUIT and SIGTERM.
#pragma once

#include <csignal>

namespace ledgerctl {

/// From now on each of these signals calls `before_end` and then ends the program. A signal that is ignored stays
/// ignored. `before_end` may call async-signal-safe functions only. A later call replaces the function.
void CatchEndingSignals(void (*before_end)(int signal));

/// Blocks all signals while it exists.
class BlockedSignals {
public:
  BlockedSignals();
  ~BlockedSignals();
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

  /// Returns the previous mask, for a child.
  const sigset_t& Before() const { return m_before; }

private:
  sigset_t m_before{};
};

}  // namespace ledgerctl
