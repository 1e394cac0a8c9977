// The D-Bus errors of the registry's interface, and the only place where exceptions are converted to them.
#pragma once

#include <dbus-c++/error.h>

#include <memory>
#include <string>

/// A D-Bus error that owns its text; the class of the library only keeps a pointer. Bytes of 0x80 and above in the text
/// are percent-escaped, and the text is cut to 4000 bytes. Throws std::bad_alloc.
class RegistryError : public DBus::Error {
public:
  /// `name` must be a static string. `text` may contain any bytes.
  RegistryError(const char* name, const std::string& text);

  static const char kInvalidName[];
  static const char kInvalidJson[];
  static const char kFull[];
  static const char kException[];

private:
  std::shared_ptr<const std::string> m_text;
};

/// Call it in a catch block. Throws the RegistryError for the current exception:
///
///     Registry::InvalidName   InvalidName, "Invalid Name"
///     Registry::InvalidJson   InvalidJson, "Invalid Json"
///     Registry::Full          Full, "Full"
///     other std::exception    Exception, its text
///     anything else           InvalidName (deliberately, not Exception), "Unknown exception"
///
/// The text of the exception is passed on only for "other std::exception".
[[noreturn]] void ThrowAsRegistryError();
