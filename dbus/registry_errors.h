// The D-Bus errors of the registry's interface, and the one place where exceptions become them.
#pragma once

#include <dbus-c++/error.h>

#include <memory>
#include <string>

/// A D-Bus error that owns its text; the library's own class keeps only the pointer that it is given. The text is made
/// fit for the bus: bytes of 0x80 and above are percent-escaped, and it is cut to 4000 bytes. Throws std::bad_alloc.
class RegistryError : public DBus::Error {
public:
  /// `name` must be a static string, `text` may be any bytes.
  RegistryError(const char* name, const std::string& text);

  static const char kInvalidName[];
  static const char kInvalidJson[];
  static const char kFull[];
  static const char kException[];

private:
  std::shared_ptr<const std::string> m_text;
};

/// Called from a catch block: throws the RegistryError that stands for the exception being handled.
///
///     Registry::InvalidName   InvalidName, "Invalid Name"
///     Registry::InvalidJson   InvalidJson, "Invalid Json"
///     Registry::Full          Full, "Full"
///     other std::exception    Exception, its text
///     anything else           InvalidName (deliberately, not Exception), "Unknown exception"
///
/// The exception's own text is passed on for "other std::exception" only.
[[noreturn]] void ThrowAsRegistryError();
