// Percent escaping of chosen bytes, its inverse, and two forms of it that make any bytes safe to show; XML and octal
// escaping.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace escape {

/// A set of bytes as a table, made once for many texts.
class ByteSet {
public:
  /// The bytes of a NUL-terminated text.
  constexpr explicit ByteSet(const char* bytes) {
    for (; *bytes != '\0'; ++bytes) {
      Add(static_cast<unsigned char>(*bytes));
    }
  }

  /// The bytes for which `predicate`, which takes an unsigned char, is true.
  template <typename Predicate>
  static constexpr ByteSet Where(Predicate predicate) {
    ByteSet set("");
    for (unsigned byte = 0; byte < 256; ++byte) {
      if (predicate(static_cast<unsigned char>(byte))) {
        set.Add(byte);
      }
    }
    return set;
  }

  constexpr bool Contains(char byte) const { return m_contains[static_cast<unsigned char>(byte)]; }

  /// Whether the text holds a byte of the set.
  bool ContainsAnyOf(const std::string& text) const {
    const char* position = text.data();
    const char* const end = position + text.size();
    for (; end - position >= 8; position += 8) {
      if (!AreEightAbove(position) && ContainsOneOfEight(position)) {
        return true;
      }
    }
    bool contains = false;
    for (; position != end; ++position) {
      contains |= Contains(*position);
    }
    return contains;
  }

private:
  constexpr void Add(unsigned byte) {
    m_contains[byte] = true;
    if (byte < 0x80) {
      m_highest = std::max(m_highest, byte);
    }
  }

  // Whether eight bytes are all ASCII and above the highest ASCII byte of the set, as nearly all are in most texts. The
  // sum carries into the highest bit of each byte that is above.
  bool AreEightAbove(const char* bytes) const {
    constexpr std::uint64_t kOnes = 0x0101010101010101;
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    const std::uint64_t sum = (word & kOnes * 0x7F) + kOnes * (0x7F - m_highest);
    return (sum & ~word & kOnes * 0x80) == kOnes * 0x80;
  }

  // No branch for each byte: most texts hold none of the set.
  bool ContainsOneOfEight(const char* bytes) const {
    const auto at = [&](int i) { return static_cast<unsigned>(Contains(bytes[i])); };
    return (at(0) | at(1) | at(2) | at(3) | at(4) | at(5) | at(6) | at(7)) != 0;
  }

  std::array<bool, 256> m_contains{};
  unsigned m_highest = 0;  // of those below 0x80
};

/// Returns `input` with every byte that occurs in the NUL-terminated `escapeSet` written as "%" and two lower-case
/// hexadecimal digits. The result can be reversed only if the set holds "%". A NUL byte cannot be in the set.
/// Throws std::bad_alloc, std::length_error.
std::string EscapeCopy(const std::string& input, const char* escapeSet);

/// The slow half of AppendEscaped, for a text that holds bytes of the set.
void AppendWithEscapes(std::string& output, const std::string& input, const ByteSet& set);

/// Appends to `output` what EscapeCopy returns for `input`, without a copy in between. Throws std::bad_alloc,
/// std::length_error; `output` may then end in a part of it.
inline void AppendEscaped(std::string& output, const std::string& input, const ByteSet& set) {
  if (set.ContainsAnyOf(input)) {
    AppendWithEscapes(output, input, set);
  } else {
    output += input;
  }
}

/// The inverse of EscapeCopy; every input decodes to something. Two deliberate oddities: a "%" with fewer than two
/// bytes behind it is dropped alone, and a byte that is no hexadecimal digit counts as the digit 0. Throws
/// std::bad_alloc.
std::string UnescapeCopy(std::string_view input);

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
