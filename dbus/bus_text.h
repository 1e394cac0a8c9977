// The limits of D-Bus messages. libdbus aborts the process if a string is not UTF-8, and cuts a string at its first
// NUL. The bus disconnects the sender of a message that is too long.
#pragma once

#include <cstddef>
#include <string>

/// Checks the strings of one reply, before they are appended to it. Use one object per reply. The arguments of a reply
/// have at most kLongestArguments bytes.
class ReplyCheck {
public:
  /// Throws RegistryError (Exception) if a D-Bus message cannot contain `text`. The text of the error contains the
  /// result of `meaning`, which says what the string is. `meaning` is called only if the check fails.
  template <typename Meaning>
  void Check(const std::string& text, Meaning meaning) {
    if (const char* defect = Defect(text)) {
      ThrowCannotCarry(meaning(), defect);
    }
  }

private:
  const char* Defect(const std::string& text);
  [[noreturn]] static void ThrowCannotCarry(const std::string& meaning, const char* defect);

  std::size_t m_size = 0;  // bytes of the reply so far, an upper bound
};
