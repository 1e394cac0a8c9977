#include "dbus/bus_text.h"

#include <dbus/dbus.h>

#include <cstdint>
#include <cstring>

#include "dbus/limits.h"
#include "dbus/registry_errors.h"

namespace {

// The length field, terminator and padding of a string, with its share of the padding of a dictionary entry.
constexpr std::size_t kOverheadPerString = 16;

// Nearly every text is ASCII, which is cheap to check. libdbus would check each byte here, and does so again when it
// appends the text.
bool IsAscii(const std::string& text) {
  std::uint64_t all_bits = 0;
  std::size_t position = 0;
  for (; text.size() - position >= sizeof all_bits; position += sizeof all_bits) {
    std::uint64_t bytes;
    std::memcpy(&bytes, &text[position], sizeof bytes);
    all_bits |= bytes;
  }
  for (; position != text.size(); ++position) {
    all_bits |= static_cast<unsigned char>(text[position]);
  }
  return (all_bits & 0x8080808080808080) == 0;
}

}  // namespace

const char* ReplyCheck::Defect(const std::string& text) {
  if (text.find('\0') != std::string::npos) {
    return "holds a NUL byte";
  }
  if (!IsAscii(text) && !dbus_validate_utf8(text.c_str(), nullptr)) {
    return "is not UTF-8";
  }
  m_size += text.size() + kOverheadPerString;
  return m_size > kLongestArguments ? "makes the reply too long" : nullptr;
}

void ReplyCheck::ThrowCannotCarry(const std::string& meaning, const char* defect) {
  throw RegistryError(RegistryError::kException, "D-Bus cannot carry the " + meaning + ": it " + defect);
}
