// Percent escaping of chosen bytes, its inverse, and two forms of it that make any bytes safe to show; XML and octal
// escaping.
#pragma once

#include <array>
#include <string>

namespace escape {

/// A set of bytes as a table, made once for many texts.
class ByteSet {
public:
  /// The bytes of a NUL-terminated text.
  constexpr explicit ByteSet(const char* bytes) {
    for (; *bytes != '\0'; ++bytes) {
      m_contains[static_cast<unsigned char>(*bytes)] = true;
    }
  }

  /// The bytes for which `predicate`, which takes an unsigned char, is true.
  template <typename Predicate>
  static constexpr ByteSet Where(Predicate predicate) {
    ByteSet set("");
    for (unsigned byte = 0; byte < 256; ++byte) {
      set.m_contains[byte] = predicate(static_cast<unsigned char>(byte));
    }
    return set;
  }

  constexpr bool Contains(char byte) const { return m_contains[static_cast<unsigned char>(byte)]; }

  bool ContainsAnyOf(const std::string& text) const;

private:
  std::array<bool, 256> m_contains{};
};

/// Returns `input` with every byte that occurs in the NUL-terminated `escapeSet` written as "%" and two lower-case
/// hexadecimal digits. The result can be reversed only if the set holds "%". A NUL byte cannot be in the set.
/// Throws std::bad_alloc, std::length_error.
std::string EscapeCopy(const std::string& input, const char* escapeSet);

/// Appends to `output` what EscapeCopy returns for `input`, without a copy in between. Throws std::bad_alloc,
/// std::length_error; `output` may then end in a part of it.
void AppendEscaped(std::string& output, const std::string& input, const ByteSet& set);

/// The inverse of EscapeCopy; every input decodes to something. Two deliberate oddities: a "%" with fewer than two
/// bytes behind it is dropped alone, and a byte that is no hexadecimal digit counts as the digit 0. Throws
/// std::bad_alloc.
std::string UnescapeCopy(const std::string& input);

/// Returns `input` with "%" and every byte but printable ASCII percent-escaped: one line that any terminal, log or bus
/// can carry. UnescapeCopy reverses it. Throws std::bad_alloc.
std::string PrintableCopy(const std::string& input);

/// Returns `input` with every byte of 0x80 or above percent-escaped and all others as they are: always valid UTF-8, and
/// unchanged for ASCII text, but not reversible. Throws std::bad_alloc.
std::string AsciiCopy(const std::string& input);

/// Returns `input` with the five characters that XML reserves written as "&lt;", "&gt;", "&amp;", "&apos;" and
/// "&quot;": fit for XML text and attribute values if its other characters are. Throws std::bad_alloc.
std::string XmlCopy(const std::string& input);

/// Returns `input` with the backslash and every byte but printable ASCII written as a backslash and three octal digits.
/// Throws std::bad_alloc.
std::string OctalCopy(const std::string& input);

}  // namespace escape
