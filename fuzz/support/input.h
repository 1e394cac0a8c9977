// The input of a fuzzer as fields, one on each line, so that seeds can be written with an editor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz {

class Input {
public:
  Input(const std::uint8_t* data, std::size_t size) : m_rest(reinterpret_cast<const char*>(data), size) {}

  bool AtEnd() const { return m_rest.empty(); }

  /// Returns the bytes up to the next newline or the end. A backslash quotes the next byte, which may be a newline.
  std::string TakeField() {
    std::string field;
    while (!AtEnd()) {
      char byte = TakeByte();
      if (byte == '\n') {
        break;
      }
      if (byte == '\\' && !AtEnd()) {
        byte = TakeByte();
      }
      field += byte;
    }
    return field;
  }

  /// Reads a field and returns the decimal number at its beginning: 0 if there is none, `greatest` if it is larger.
  std::size_t TakeNumber(std::size_t greatest) {
    std::size_t number = 0;
    for (const char byte : TakeField()) {
      if (byte < '0' || byte > '9') {
        return number;
      }
      number = number * 10 + static_cast<std::size_t>(byte - '0');
      if (number >= greatest) {
        return greatest;
      }
    }
    return number;
  }

  /// Returns all remaining bytes unchanged.
  std::string TakeRest() {
    const std::string rest(m_rest);
    m_rest = {};
    return rest;
  }

private:
  char TakeByte() {
    const char byte = m_rest.front();
    m_rest.remove_prefix(1);
    return byte;
  }

  std::string_view m_rest;
};

}  // namespace fuzz
