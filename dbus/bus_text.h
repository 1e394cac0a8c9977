// What a D-Bus message can carry: libdbus aborts the process on a string that is not UTF-8 and cuts one at its first
// NUL, and the bus disconnects the sender of a message that is too long.
#pragma once

#include <cstddef>
#include <string>

namespace DBus {
class MessageIter;
}

/// Appends the strings of one reply, checking each, and keeps count of their size. One object per reply.
class ReplyStrings {
public:
  /// Appends `text`, unchanged. If the bus cannot carry it, throws RegistryError (Exception) with a text that says
  /// which string is meant: `meaning` is called for it, in that case only. The reply is then unfinished and must be
  /// dropped. Throws std::bad_alloc.
  template <typename Meaning>
  void Append(DBus::MessageIter& writer, const std::string& text, Meaning meaning) {
    if (const char* defect = Defect(text)) {
      ThrowCannotCarry(meaning(), defect);
    }
    AppendChecked(writer, text);
  }

private:
  const char* Defect(const std::string& text);
  [[noreturn]] static void ThrowCannotCarry(const std::string& meaning, const char* defect);
  static void AppendChecked(DBus::MessageIter& writer, const std::string& text);

  std::size_t m_size = 0;  // bytes of the reply so far, an upper bound
};
