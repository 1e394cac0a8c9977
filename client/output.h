// Standard output and standard error of the program.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace ledgerctl {

enum class Colour { None, Bold, Red, Green, Blue };

/// Collects the output and writes it in large pieces: it waits for a slow terminal once, not once for each line.
class Output {
public:
  /// `fd` stays the caller's. Colours are used if it is a terminal that knows them and NO_COLOR is unset or empty.
  explicit Output(int fd);

  /// Throws Failure (Local) if a write fails, for example because the disk is full.
  void Write(std::string_view text);

  /// Like Write, in `colour` if the output has colours.
  void WriteColoured(Colour colour, std::string_view text);

  /// Writes the output that has not been written yet. Must be called before the program reports success.
  void Flush();

  bool IsTerminal() const { return m_is_terminal; }

  /// Returns the width of the terminal. It is 80 if it is unknown.
  std::size_t Columns() const;

private:
  int m_fd;
  bool m_is_terminal;
  bool m_has_colours;
  std::string m_pending;
};

/// Lines on standard error, each in one write.
class Messages {
public:
  Messages(int fd, bool quiet) : m_fd(fd), m_quiet(quiet) {}

  /// "ledgerctl: text".
  void Error(const std::string& text) const;

  /// "ledgerctl: warning: text", unless quiet.
  void Warning(const std::string& text) const;

  /// "text", unless quiet.
  void Note(const std::string& text) const;

  /// "text " without a newline, for an answer on the same line.
  void Question(const std::string& text) const;

  /// Returns whether the descriptor is a terminal, so that a user can read a question.
  bool IsTerminal() const;

private:
  void Line(const std::string& text) const;

  int m_fd;
  bool m_quiet;
};

}  // namespace ledgerctl
