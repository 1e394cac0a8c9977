#include "client/time_limit.h"

#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>

#include "client/failure.h"
#include "client/temporary_file.h"

namespace ledgerctl {
namespace {

// What the handler prints; it may not allocate.
std::string g_message;

extern "C" void OnTimeLimit(int) {
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, g_message.data(), g_message.size());
  SettleTemporaryFile();
  ::_exit(static_cast<int>(ExitStatus::NoAnswer));
}

void SetTimer(std::chrono::milliseconds time) {
  itimerval timer{};
  timer.it_value.tv_sec = static_cast<time_t>(time.count() / 1000);
  timer.it_value.tv_usec = static_cast<suseconds_t>(time.count() % 1000 * 1000);
  ::setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace

TimeLimit::TimeLimit(std::chrono::milliseconds time, const std::string& shown) {
  g_message = "ledgerctl: " + NoAnswerText(shown) + "\n";
  std::signal(SIGALRM, OnTimeLimit);
  SetTimer(time);
}

TimeLimit::~TimeLimit() { SetTimer(std::chrono::milliseconds(0)); }

std::string NoAnswerText(const std::string& shown) { return "no answer in " + shown + " s"; }

}  // namespace ledgerctl
