#include "client/output.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "client/failure.h"

namespace ledgerctl {
namespace {

constexpr std::size_t kLargestPending = std::size_t{64} * 1024;
constexpr std::size_t kUsualColumns = 80;

// Returns 0 or the error's number. No signal interrupts it: the program's handlers end the program.
int WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = ::write(fd, text.data(), text.size());
    if (n < 0) {
      return errno;
    }
    text.remove_prefix(static_cast<std::size_t>(n));
  }
  return 0;
}

bool KnowsColours() {
  const char* const terminal = std::getenv("TERM");
  const char* const no_colour = std::getenv("NO_COLOR");
  const bool is_unwanted = no_colour != nullptr && *no_colour != '\0';
  return !is_unwanted && terminal != nullptr && std::string_view(terminal) != "dumb";
}

std::string_view Sequence(Colour colour) {
  switch (colour) {
    case Colour::Bold:
      return "\033[1m";
    case Colour::Red:
      return "\033[31m";
    case Colour::Green:
      return "\033[32m";
    case Colour::Blue:
      return "\033[34m";
    case Colour::None:
      break;
  }
  return "";
}

}  // namespace

Output::Output(int fd) : m_fd(fd), m_is_terminal(::isatty(fd) == 1), m_has_colours(m_is_terminal && KnowsColours()) {}

void Output::Write(std::string_view text) {
  m_pending += text;
  if (m_pending.size() >= kLargestPending) {
    Flush();
  }
}

void Output::WriteColoured(Colour colour, std::string_view text) {
  const std::string_view sequence = m_has_colours ? Sequence(colour) : "";
  Write(sequence);
  Write(text);
  Write(sequence.empty() ? "" : "\033[0m");
}

void Output::Flush() {
  const int error = WriteAll(m_fd, m_pending);
  m_pending.clear();
  if (error != 0) {
    throw LocalFailure("standard output", error);
  }
}

std::size_t Output::Columns() const {
  winsize size{};
  const bool is_known = m_is_terminal && ::ioctl(m_fd, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
  return is_known ? size.ws_col : kUsualColumns;
}

void Messages::Error(const std::string& text) const { Line("ledgerctl: " + text); }

void Messages::Warning(const std::string& text) const {
  if (!m_quiet) {
    Line("ledgerctl: warning: " + text);
  }
}

void Messages::Note(const std::string& text) const {
  if (!m_quiet) {
    Line(text);
  }
}

void Messages::Question(const std::string& text) const { WriteAll(m_fd, text + " "); }

bool Messages::IsTerminal() const { return ::isatty(m_fd) == 1; }

void Messages::Line(const std::string& text) const {
  // There is no place to report a failure to.
  WriteAll(m_fd, text + "\n");
}

}  // namespace ledgerctl
