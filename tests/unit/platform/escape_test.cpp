#include "lib/platform/escape.h"

#include <gtest/gtest.h>

#include <string>

using escape::AppendEscaped;
using escape::AsciiCopy;
using escape::ByteSet;
using escape::EscapeCopy;
using escape::OctalCopy;
using escape::PrintableCopy;
using escape::UnescapeCopy;
using escape::XmlCopy;
using namespace std::string_literals;

namespace {

std::string AllBytes() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

}  // namespace

TEST(EscapeCopy, EscapesTheBytesOfTheSetOnly) {
  const struct {
    const char* name;
    std::string input;
    const char* set;
    std::string output;
  } rows[] = {
      {"line ends and percent", "a%b\r\n", "%\r\n", "a%25b%0d%0a"},
      {"empty input", "", "%", ""},
      {"empty set", "a%b", "", "a%b"},
      {"nothing to escape", "abc", "%=", "abc"},
      {"everything to escape", "==", "=", "%3d%3d"},
      {"first and last byte", "=a=", "=", "%3da%3d"},
      {"percent not in the set", "%=%", "=", "%%3d%"},
      {"high byte", "\xff\x80z", "\xff\x80", "%ff%80z"},
      {"high byte not in the set", "\xff", "\x7f", "\xff"},
      {"NUL ends the set", "a\0b"s, "b\0a", "a\0%62"s},
      {"bytes behind a NUL", "\0=\0"s, "=", "\0%3d\0"s},
      {"single digit value", "\x01\t", "\x01\t", "%01%09"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(EscapeCopy(row.input, row.set), row.output);
  }
}

TEST(AppendEscaped, KeepsWhatTheOutputHolds) {
  std::string output = "kept%";
  AppendEscaped(output, "a%b", ByteSet("%"));
  AppendEscaped(output, "", ByteSet("%"));
  AppendEscaped(output, "=c\0d"s, ByteSet("="));
  EXPECT_EQ(output, "kept%a%25b%3dc\0d"s);
}

TEST(ByteSet, HoldsTheBytesOfItsTextOnly) {
  constexpr ByteSet kSet("%\xff");
  for (int byte = 0; byte < 256; ++byte) {
    EXPECT_EQ(kSet.Contains(static_cast<char>(byte)), byte == '%' || byte == 0xff) << byte;
  }
}

TEST(ByteSet, HoldsTheBytesOfItsPredicateOnly) {
  constexpr ByteSet kSet = ByteSet::Where([](unsigned char byte) { return byte == 0 || byte >= 0xfe; });
  for (int byte = 0; byte < 256; ++byte) {
    EXPECT_EQ(kSet.Contains(static_cast<char>(byte)), byte == 0 || byte >= 0xfe) << byte;
  }
}

TEST(ByteSet, FindsAByteAnywhereInAText) {
  for (const ByteSet& set : {ByteSet("%\r\n"), ByteSet("\x7f"), ByteSet("=\x80"), ByteSet("=\xff")}) {
    EXPECT_FALSE(set.ContainsAnyOf(""));
    for (const char other : {'\0', 'a', '\xfe'}) {
      for (std::size_t size = 1; size <= 20; ++size) {
        std::string text(size, other);
        EXPECT_FALSE(set.ContainsAnyOf(text)) << size;
        for (char& position : text) {
          for (int byte = 0; byte < 256; ++byte) {
            position = static_cast<char>(byte);
            ASSERT_EQ(set.ContainsAnyOf(text), set.Contains(position)) << testing::PrintToString(text);
          }
          position = other;
        }
      }
    }
  }
}

TEST(UnescapeCopy, DecodesEveryInput) {
  const struct {
    const char* name;
    std::string input;
    std::string output;
  } rows[] = {
      {"line ends and percent", "a%25b%0d%0a", "a%b\r\n"},
      {"one digit at the end", "%41%4", "A4"},
      {"percent at the end", "100%", "100"},
      {"percent behind two letters", "ab%", "ab"},
      {"one digit behind two letters", "ab%4", "ab4"},
      {"upper case digit", "%4A", "J"},
      {"lower case digit", "%4a", "J"},
      {"no digits", "%zz", "\0"s},
      {"high nibble only", "%7z", "p"},
      {"low nibble only", "%z7", "\x07"},
      {"bytes next to the digits", "%/:%@G%`g", "\0\0\0"s},
      {"last digits", "%9f%Ff%aF%fA", "\x9f\xff\xaf\xfa"},
      {"NUL", "a%00b", "a\0b"s},
      {"percent as a digit", "%%41",
       "\x04"
       "1"},
      {"escaped percent is not decoded twice", "%2541", "%41"},
      {"percent alone", "%", ""},
      {"two percents", "%%", ""},
      {"three percents", "%%%", "\0"s},
      {"empty", "", ""},
      {"plain", "abc", "abc"},
      {"high byte as a digit",
       "%\xff"
       "1",
       "\x01"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(UnescapeCopy(row.input), row.output);
  }
}

TEST(UnescapeCopy, ReversesEscapeCopyOfAnyBytes) {
  const std::string bytes = AllBytes() + AllBytes();
  EXPECT_EQ(UnescapeCopy(EscapeCopy(bytes, "%\r\n=")), bytes);
  EXPECT_EQ(UnescapeCopy(EscapeCopy(bytes, "%0123456789abcdefABCDEF")), bytes);
}

TEST(PrintableCopy, LeavesOnlyPrintableAscii) {
  const struct {
    const char* name;
    std::string input;
    std::string output;
  } rows[] = {
      {"blank and tilde", " ~", " ~"},
      {"just outside", "\x1f\x7f", "%1f%7f"},
      {"percent", "100%", "100%25"},
      {"line feed", "a\nb", "a%0ab"},
      {"NUL", "a\0b"s, "a%00b"},
      {"UTF-8", "\xc3\xa4", "%c3%a4"},
      {"limits of the high half", "\x80\xff", "%80%ff"},
      {"empty", "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(PrintableCopy(row.input), row.output);
    EXPECT_EQ(UnescapeCopy(row.output), row.input);
  }
  EXPECT_EQ(UnescapeCopy(PrintableCopy(AllBytes())), AllBytes());
}

TEST(AsciiCopy, EscapesTheHighHalfOnly) {
  const struct {
    const char* name;
    std::string input;
    std::string output;
  } rows[] = {
      {"UTF-8", "\xc3\xa4", "%c3%a4"},
      {"limits", "\x7f\x80\xff", "\x7f%80%ff"},
      {"percent", "100%", "100%"},
      {"control characters", "\n\t\0"s, "\n\t\0"s},
      {"empty", "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(AsciiCopy(row.input), row.output);
  }
  EXPECT_EQ(AsciiCopy(AllBytes().substr(0, 128)), AllBytes().substr(0, 128));
}

TEST(XmlCopy, EscapesTheFiveReservedCharactersOnly) {
  const struct {
    const char* name;
    std::string input;
    std::string output;
  } rows[] = {
      {"all five", "<>&'\"", "&lt;&gt;&amp;&apos;&quot;"},
      {"element", "<a b=\"c\">it's</a>", "&lt;a b=&quot;c&quot;&gt;it&apos;s&lt;/a&gt;"},
      {"entity is not recognised", "&lt;", "&amp;lt;"},
      {"NUL, control characters, UTF-8", "\0\n\x7f\xc3\xa4"s, "\0\n\x7f\xc3\xa4"s},
      {"empty", "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(XmlCopy(row.input), row.output);
  }
}

TEST(OctalCopy, LeavesOnlyPrintableAsciiWithoutTheBackslash) {
  const struct {
    const char* name;
    std::string input;
    std::string output;
  } rows[] = {
      {"limits of printable ASCII", "\x1f ~\x7f", "\\037 ~\\177"},
      {"backslash", "a\\n", "a\\134n"},
      {"its neighbours", "[]", "[]"},
      {"digit after it", "\n7", "\\0127"},
      {"limits of all bytes", "\0\xff"s, "\\000\\377"},
      {"UTF-8", "\xc3\xa4", "\\303\\244"},
      {"conversions", "%s", "%s"},
      {"empty", "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(OctalCopy(row.input), row.output);
  }
}
