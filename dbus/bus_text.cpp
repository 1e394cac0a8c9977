#include "dbus/bus_text.h"

#include <dbus/dbus.h>

#include "dbus/registry_errors.h"

namespace {

// The longest message that a system bus takes unless it is configured otherwise, less room for the header.
constexpr std::size_t kLongestReply = 32 * 1024 * 1024 - 64 * 1024;

// A string's length field, terminator and padding, with its share of a dictionary entry's padding.
constexpr std::size_t kOverheadPerString = 16;

}  // namespace

const char* ReplyCheck::Defect(const std::string& text) {
  if (text.find('\0') != std::string::npos) {
    return "holds a NUL byte";
  }
  if (!dbus_validate_utf8(text.c_str(), nullptr)) {
    return "is not UTF-8";
  }
  m_size += text.size() + kOverheadPerString;
  return m_size > kLongestReply ? "makes the reply too long" : nullptr;
}

void ReplyCheck::ThrowCannotCarry(const std::string& meaning, const char* defect) {
  throw RegistryError(RegistryError::kException, "D-Bus cannot carry the " + meaning + ": it " + defect);
}
