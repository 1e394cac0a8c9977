// Percent escaping of chosen bytes, its inverse, and two forms of it that make any bytes safe to print. Also XML and
// octal escaping.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace escape {

/// A set of bytes as a lookup table, built once for many texts.
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

  /// Whether the text contains a byte of the set.
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

  // Whether eight bytes are all ASCII and greater than the greatest ASCII byte of the set. In most texts, this is true
  // for nearly all groups of eight bytes. The sum carries into the highest bit of each byte that is greater.
  bool AreEightAbove(const char* bytes) const {
    constexpr std::uint64_t kOnes = 0x0101010101010101;
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    const std::uint64_t sum = (word & kOnes * 0x7F) + kOnes * (0x7F - m_highest);
    return (sum & ~word & kOnes * 0x80) == kOnes * 0x80;
  }

  // There is no branch for each byte, because most texts contain no byte of the set.
  bool ContainsOneOfEight(const char* bytes) const {
    const auto at = [&](int i) { return static_cast<unsigned>(Contains(bytes[i])); };
    return (at(0) | at(1) | at(2) | at(3) | at(4) | at(5) | at(6) | at(7)) != 0;
  }

  std::array<bool, 256> m_contains{};
  unsigned m_highest = 0;  // of those below 0x80
};

/// Returns `input` with every byte of the NUL-terminated `escapeSet` written as "%" and two lower-case hexadecimal
/// digits. The result can be decoded only if the set contains "%". A NUL byte cannot be in the set. Throws
/// std::bad_alloc and std::length_error.
std::string EscapeCopy(const std::string& input, const char* escapeSet);

/// The slow path of AppendEscaped, for a text that contains bytes of the set.
void AppendWithEscapes(std::string& output, const std::string& input, const ByteSet& set);

/// Appends the result of EscapeCopy to `output`, without a temporary copy. Throws std::bad_alloc and std::length_error;
/// `output` may then end with a part of the result.
inline void AppendEscaped(std::string& output, const std::string& input, const ByteSet& set) {
  if (set.ContainsAnyOf(input)) {
    AppendWithEscapes(output, input, set);
  } else {
    output += input;
  }
}

/// The inverse of EscapeCopy. Every input can be decoded. Two quirks are deliberate: a "%" that is followed by fewer
/// than two bytes is dropped, and a byte that is not a hexadecimal digit counts as the digit 0. Throws std::bad_alloc.
std::string UnescapeCopy(std::string_view input);

/// Returns `input` with "%" and every byte except printable ASCII percent-escaped. The result is one line that is safe
/// for any terminal, log or bus. UnescapeCopy decodes it. Throws std::bad_alloc.
std::string PrintableCopy(const std::string& input);

/// Returns `input` with every byte of 0x80 or above percent-escaped and all others unchanged. The result is valid
/// UTF-8, but it cannot be decoded, because "%" is not escaped. Throws std::bad_alloc.
std::string AsciiCopy(const std::string& input);

/// Returns `input` with the five reserved characters of XML written as "&lt;", "&gt;", "&amp;", "&apos;" and "&quot;".
/// All other characters are unchanged, even those that XML does not allow. Throws std::bad_alloc.
std::string XmlCopy(const std::string& input);

/// Returns `input` with the backslash and every byte except printable ASCII written as a backslash and three octal
/// digits. Throws std::bad_alloc.
std::string OctalCopy(const std::string& input);

}  // namespace escape
