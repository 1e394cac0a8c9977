// What a D-Bus message can carry: libdbus aborts the process on a string that is not UTF-8 and cuts one at its first
// NUL, and the bus disconnects the sender of a message that is too long.
#pragma once

#include <cstddef>
#include <string>

/// Checks the strings of one reply, one after the other, before anything is appended to it: a container that is left
/// open by an exception would never be freed. One object per reply.
class ReplyCheck {
public:
  /// If the bus cannot carry `text`, throws RegistryError (Exception) with a text that says which string is meant:
  /// `meaning` is called for it, in that case only.
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
