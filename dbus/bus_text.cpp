#include "dbus/bus_text.h"

#include <dbus/dbus.h>

#include <cstdint>
#include <cstring>

#include "dbus/registry_errors.h"

namespace {

// The longest message that a system bus takes unless it is configured otherwise, less room for the header.
constexpr std::size_t kLongestReply = 32 * 1024 * 1024 - 64 * 1024;

// A string's length field, terminator and padding, with its share of a dictionary entry's padding.
constexpr std::size_t kOverheadPerString = 16;

// Nearly every text is ASCII, which is cheap to find out; libdbus looks at each byte, here and again when it appends.
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
  return m_size > kLongestReply ? "makes the reply too long" : nullptr;
}

void ReplyCheck::ThrowCannotCarry(const std::string& meaning, const char* defect) {
  throw RegistryError(RegistryError::kException, "D-Bus cannot carry the " + meaning + ": it " + defect);
}
