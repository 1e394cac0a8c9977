#include "lib/platform/escape.h"

#include <algorithm>
#include <cstddef>

#include "lib/platform/assertion.h"
#include "lib/platform/hex_text.h"
#include "lib/platform/string_operations.h"

namespace escape {
namespace {

void AppendEscapedByte(std::string& output, char byte) {
  static const char kDigits[] = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  output += '%';
  output += kDigits[value >> 4];
  output += kDigits[value & 0xF];
}

constexpr ByteSet kNotPrintable =
    ByteSet::Where([](unsigned char byte) { return byte < 0x20 || byte > 0x7E || byte == '%'; });

constexpr ByteSet kOctal =
    ByteSet::Where([](unsigned char byte) { return byte < 0x20 || byte > 0x7E || byte == '\\'; });

constexpr ByteSet kNotAscii = ByteSet::Where([](unsigned char byte) { return byte >= 0x80; });

std::string EscapeCopy(const std::string& input, const ByteSet& set) {
  std::string output;
  output.reserve(input.size());
  AppendEscaped(output, input, set);
  return output;
}

// A byte that is not a digit counts as 0.
int DigitOrZero(char digit) { return std::max(bramble::HexDigitValue(digit), 0); }

// Returns null for a byte that needs no entity.
const char* XmlEntity(char byte) {
  switch (byte) {
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '&':
      return "&amp;";
    case '\'':
      return "&apos;";
    case '"':
      return "&quot;";
    default:
      return nullptr;
  }
}

}  // namespace

std::string EscapeCopy(const std::string& input, const char* escapeSet) {
  return EscapeCopy(input, ByteSet(escapeSet));
}

void AppendWithEscapes(std::string& output, const std::string& input, const ByteSet& set) {
  const char* position = input.data();
  const char* const end = position + input.size();
  for (;;) {
    const char* const next = std::find_if(position, end, [&](char byte) { return set.Contains(byte); });
    output.append(position, static_cast<std::size_t>(next - position));
    if (next == end) {
      return;
    }
    AppendEscapedByte(output, *next);
    position = next + 1;
  }
}

std::string UnescapeCopy(std::string_view input) {
  if (input.find('%') == std::string_view::npos) {
    return std::string(input);
  }
  std::string output;
  output.reserve(input.size());
  std::size_t position = 0;
  for (;;) {
    const std::size_t next = input.find('%', position);
    if (next == std::string_view::npos) {
      return output.append(input, position);
    }
    BRAMBLE_ASSERT(input[next] == '%');
    output.append(input, position, next - position);
    if (next + 2 >= input.size()) {
      position = next + 1;
    } else {
      output += static_cast<char>(DigitOrZero(input[next + 1]) << 4 | DigitOrZero(input[next + 2]));
      position = next + 3;
    }
  }
}

std::string PrintableCopy(const std::string& input) { return EscapeCopy(input, kNotPrintable); }

std::string AsciiCopy(const std::string& input) { return EscapeCopy(input, kNotAscii); }

std::string XmlCopy(const std::string& input) {
  std::string output;
  output.reserve(input.size());
  for (const char byte : input) {
    if (const char* const entity = XmlEntity(byte)) {
      output += entity;
    } else {
      output += byte;
    }
  }
  return output;
}

std::string OctalCopy(const std::string& input) {
  std::string output;
  output.reserve(input.size());
  for (const char byte : input) {
    if (kOctal.Contains(byte)) {
      output += bramble::strprintf("\\%03o", static_cast<unsigned char>(byte));
    } else {
      output += byte;
    }
  }
  return output;
}

}  // namespace escape
