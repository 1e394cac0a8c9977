#include "lib/platform/escape.h"

#include "tests/unit/platform/platform_test.h"

using namespace escape;
using namespace test_platform;

TEST(EscapeCopy, EscapesTheBytesOfTheSetOnly) {
  const std::tuple<const char*, std::string, const char*, std::string> rows[] = {
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
      {"bytes after a NUL", "\0=\0"s, "=", "\0%3d\0"s},
      {"values of one digit", "\x01\t", "\x01\t", "%01%09"},
  };
  for (const auto& [name, input, set, output] : rows) {
    SCOPED_TRACE(name);
    EXPECT_EQ(EscapeCopy(input, set), output);
    std::string appended = "kept%";
    AppendEscaped(appended, input, ByteSet(set));
    EXPECT_EQ(appended, "kept%" + output);
  }
}

TEST(ByteSet, ContainsTheBytesOfItsTextOrPredicateOnly) {
  constexpr ByteSet kText("%\xff");
  constexpr ByteSet kPredicate = ByteSet::Where([](unsigned char byte) { return byte == 0 || byte >= 0xfe; });
  for (int byte = 0; byte < 256; ++byte) {
    EXPECT_EQ(kText.Contains(static_cast<char>(byte)), byte == '%' || byte == 0xff) << byte;
    EXPECT_EQ(kPredicate.Contains(static_cast<char>(byte)), byte == 0 || byte >= 0xfe) << byte;
  }
}

TEST(ByteSet, FindsAByteAnywhereInAText) {
  const std::string bytes = AllBytes();
  for (const ByteSet& set : {ByteSet("%\r\n"), ByteSet("\x7f"), ByteSet("=\x80"), ByteSet("=\xff")}) {
    EXPECT_FALSE(set.ContainsAnyOf(""));
    for (const char other : {'\0', 'a', '\xfe'}) {
      for (std::size_t size = 1; size <= 20; ++size) {
        std::string text(size, other);
        EXPECT_FALSE(set.ContainsAnyOf(text)) << size;
        for (char& position : text) {
          for (const char byte : bytes) {
            position = byte;
            ASSERT_EQ(set.ContainsAnyOf(text), set.Contains(position)) << testing::PrintToString(text);
          }
          position = other;
        }
      }
    }
  }
}

TEST(UnescapeCopy, DecodesEveryInput) {
  const std::tuple<const char*, std::string, std::string> rows[] = {
      {"line ends and percent", "a%25b%0d%0a", "a%b\r\n"},
      {"one digit at the end", "%41%4", "A4"},
      {"percent at the end", "100%", "100"},
      {"percent after two letters", "ab%", "ab"},
      {"one digit after two letters", "ab%4", "ab4"},
      {"upper case digit", "%4A", "J"},
      {"lower case digit", "%4a", "J"},
      {"no digits", "%zz", "\0"s},
      {"high digit only", "%7z", "p"},
      {"low digit only", "%z7", "\x07"},
      {"bytes next to the digits", "%/:%@G%`g", "\0\0\0"s},
      {"last digits", "%9f%Ff%aF%fA", "\x9f\xff\xaf\xfa"},
      {"NUL", "a%00b", "a\0b"s},
      {"percent as a digit", "%%41", "\0041"},
      {"escaped percent is not decoded twice", "%2541", "%41"},
      {"percent alone", "%", ""},
      {"two percents", "%%", ""},
      {"three percents", "%%%", "\0"s},
      {"empty", "", ""},
      {"plain", "abc", "abc"},
      {"high byte as a digit", "%\3771", "\x01"},
  };
  for (const auto& [name, input, output] : rows) {
    SCOPED_TRACE(name);
    EXPECT_EQ(UnescapeCopy(input), output);
  }
}

TEST(UnescapeCopy, ReversesEscapingOfAnyBytes) {
  const std::string bytes = AllBytes() + AllBytes();
  EXPECT_EQ(UnescapeCopy(EscapeCopy(bytes, "%\r\n=")), bytes);
  EXPECT_EQ(UnescapeCopy(EscapeCopy(bytes, "%0123456789abcdefABCDEF")), bytes);
  EXPECT_EQ(UnescapeCopy(PrintableCopy(bytes)), bytes);
}

TEST(Escape, HasAFormForEachPurpose) {
  const std::tuple<const char*, std::string (*)(const std::string&), std::string, std::string> rows[] = {
      {"printable: space and tilde", PrintableCopy, " ~", " ~"},
      {"printable: next to them", PrintableCopy, "\x1f\x7f", "%1f%7f"},
      {"printable: percent", PrintableCopy, "100%", "100%25"},
      {"printable: newline and NUL", PrintableCopy, "a\nb\0c"s, "a%0ab%00c"},
      {"printable: UTF-8", PrintableCopy, "\xc3\xa4", "%c3%a4"},
      {"printable: high half", PrintableCopy, "\x80\xff", "%80%ff"},
      {"printable: empty", PrintableCopy, "", ""},
      {"ASCII: UTF-8", AsciiCopy, "\xc3\xa4", "%c3%a4"},
      {"ASCII: high half", AsciiCopy, "\x7f\x80\xff", "\x7f%80%ff"},
      {"ASCII: low half", AsciiCopy, AllBytes().substr(0, 128), AllBytes().substr(0, 128)},
      {"ASCII: empty", AsciiCopy, "", ""},
      {"XML: reserved characters", XmlCopy, "<>&'\"", "&lt;&gt;&amp;&apos;&quot;"},
      {"XML: element", XmlCopy, "<a b=\"c\">it's</a>", "&lt;a b=&quot;c&quot;&gt;it&apos;s&lt;/a&gt;"},
      {"XML: entity is not recognised", XmlCopy, "&lt;", "&amp;lt;"},
      {"XML: NUL, control characters, UTF-8", XmlCopy, "\0\n\x7f\xc3\xa4"s, "\0\n\x7f\xc3\xa4"s},
      {"XML: empty", XmlCopy, "", ""},
      {"octal: limits of printable ASCII", OctalCopy, "\x1f ~\x7f", "\\037 ~\\177"},
      {"octal: backslash", OctalCopy, "a\\n", "a\\134n"},
      {"octal: next to the backslash", OctalCopy, "[]", "[]"},
      {"octal: digit follows", OctalCopy, "\n7", "\\0127"},
      {"octal: limits of all bytes", OctalCopy, "\0\xff"s, "\\000\\377"},
      {"octal: UTF-8", OctalCopy, "\xc3\xa4", "\\303\\244"},
      {"octal: conversions", OctalCopy, "%s", "%s"},
      {"octal: empty", OctalCopy, "", ""},
  };
  for (const auto& [name, copy, input, output] : rows) {
    SCOPED_TRACE(name);
    EXPECT_EQ(copy(input), output);
  }
}
