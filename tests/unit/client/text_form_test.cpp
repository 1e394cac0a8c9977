#include "client/text_form.h"

#include <gtest/gtest.h>

#include <random>

#include "client/failure.h"
#include "client/quote_word.h"

namespace ledgerctl {
namespace {

TEST(QuoteWord, QuotesWhatAShellWouldTake) {
  struct Row {
    const char* name;
    std::string text;
    std::string word;
  };
  const Row rows[] = {
      {"plain", "player-7", "player-7"},
      {"all plain characters", "aZ09_@%+:,./-", "aZ09_@%+:,./-"},
      {"empty", "", "''"},
      {"blank", "a b", "'a b'"},
      {"equals", "a=b", "'a=b'"},
      {"comment", "#a", "'#a'"},
      {"header", "[a]", "'[a]'"},
      {"single quote", "it's", "'it'\\''s'"},
      {"dollar and backquote", "$a`b`", "'$a`b`'"},
      {"backslash", "a\\b", "'a\\b'"},
      {"line feed", "a\nb", "$'a\\nb'"},
      {"carriage return and tab", "\r\t", "$'\\r\\t'"},
      {"quote and backslash beside a line feed", "'\\\n", "$'\\'\\\\\\n'"},
      {"escape sequence", "\033[31m", "$'\\x1b[31m'"},
      {"NUL", std::string("\0", 1), "$'\\x00'"},
      {"delete", "\x7f", "$'\\x7f'"},
      {"two bytes", "gr\xc3\xb6n", "'gr\xc3\xb6n'"},
      {"three bytes", "\xe2\x82\xac", "'\xe2\x82\xac'"},
      {"four bytes", "\xf0\x9f\x98\x80", "'\xf0\x9f\x98\x80'"},
      {"control character of two bytes", "\xc2\x85", "$'\\xc2\\x85'"},
      {"turns the direction", "\xe2\x80\xae", "$'\\xe2\\x80\\xae'"},
      {"lone continuation", "a\x80", "$'a\\x80'"},
      {"character behind a byte that is none", "\xff\xc3\xb6", "$'\\xff\xc3\xb6'"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(QuoteWord(row.text), row.word);
    if (IsUtf8(row.text)) {
      EXPECT_EQ(ParseText("[s]\nk=" + row.word + "\n")["s"]["k"], row.text);
    }
  }
}

TEST(QuoteWord, EscapesWhatHarmsATerminal) {
  // The first and the last of each range, then their neighbours.
  for (const char* text : {"\x01", "\x1f", "\x7f", "\u0080", "\u009f", "\u200e", "\u200f", "\u2028", "\u202e", "\u2066",
                           "\u2069", "\ufeff"}) {
    EXPECT_EQ(QuoteWord(text).substr(0, 4), "$'\\x") << QuoteWord(text);
    EXPECT_TRUE(IsUtf8(text)) << QuoteWord(text);
  }
  for (const std::string text :
       {" ", "~", "\u00a0", "\u200d", "\u2010", "\u2027", "\u202f", "\u2065", "\u206a", "\ufefe", "\uff00", "\u07ff",
        "\u0800", "\ud7ff", "\ue000", "\uffff", "\U00010000", "\U0010ffff"}) {
    EXPECT_EQ(QuoteWord(text), "'" + text + "'");
    EXPECT_TRUE(IsUtf8(text)) << text;
  }
}

TEST(QuoteWord, EscapesWhatIsNotUtf8) {
  struct Row {
    const char* name;
    const char* text;
    const char* word;
  };
  const Row rows[] = {
      {"continuations alone", "\xbf\xbf", "$'\\xbf\\xbf'"},
      {"cut character", "\xe2\x82", "$'\\xe2\\x82'"},
      {"character that another one cuts", "\xe2\x82\xc3", "$'\\xe2\\x82\\xc3'"},
      {"two bytes for one", "\xc1\xbf", "$'\\xc1\\xbf'"},
      {"three bytes for two", "\xe0\x9f\xbf", "$'\\xe0\\x9f\\xbf'"},
      {"four bytes for three", "\xf0\x8f\xbf\xbf", "$'\\xf0\\x8f\\xbf\\xbf'"},
      {"first surrogate", "\xed\xa0\x80", "$'\\xed\\xa0\\x80'"},
      {"last surrogate", "\xed\xbf\xbf", "$'\\xed\\xbf\\xbf'"},
      {"beyond the last character", "\xf4\x90\x80\x80", "$'\\xf4\\x90\\x80\\x80'"},
      {"lead of five bytes", "\xf8\x90\x80\x80", "$'\\xf8\\x90\\x80\\x80'"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(QuoteWord(row.text), row.word);
    EXPECT_FALSE(IsUtf8(row.text));
  }
}

TEST(ShownKey, QuotesNamesAlways) {
  EXPECT_EQ(ShownKey("a", "b\n"), "key $'b\\n' in section 'a'");
  EXPECT_EQ(ShownSection(""), "section ''");
}

TEST(TextForm, IsPrintedAsItIsDocumented) {
  EXPECT_EQ(PrintText({}), "");
  EXPECT_EQ(PrintText({{"", {{"", "x"}}}, {"empty", {}}, {"net", {{"[k", ""}, {"ip", "10.0.0.1"}}}}),
            "['']\n''=x\n\n[empty]\n\n[net]\n'[k'=\nip=10.0.0.1\n");
}

TEST(TextForm, IsReadAsPeopleWriteIt) {
  struct Row {
    const char* name;
    const char* text;
    RegistrySections sections;
  };
  const Row rows[] = {
      {"nothing", "", {}},
      {"comments and blank lines", "# a\n\n  \t\n  # b\n[s]\n", {{"s", {}}}},
      {"no line feed at the end", "[s]\nk=v", {{"s", {{"k", "v"}}}}},
      {"CR LF", "[s]\r\nk=v\r\n", {{"s", {{"k", "v"}}}}},
      {"blanks around", " [ s ] \n k = v \n", {{"s", {{"k", "v"}}}}},
      {"blanks within", "[a b]\nc d=e  f\n", {{"a b", {{"c d", "e  f"}}}}},
      {"quoted blanks", "[s]\nk=' v '\n", {{"s", {{"k", " v "}}}}},
      {"quotes of both kinds", "[s]\nk=a'b\"'\"c'\\$\\\"\\`\\n\"\n", {{"s", {{"k", "ab\"c'$\"`\\n"}}}}},
      {"escapes", "[s]\nk=$'\\xC3\\xb6\\\"'\n", {{"s", {{"k", "\xc3\xb6\""}}}}},
      {"backslash at the end of a line", "[s]\nk=a\\\nl=b\n", {{"s", {{"k", "a\\"}, {"l", "b"}}}}},
      {"backslash", "[s]\nk=\\'\\ \n", {{"s", {{"k", "' "}}}}},
      {"equals in a value", "[s]\nk=a=b\n", {{"s", {{"k", "a=b"}}}}},
      {"no equals", "[s]\nk\n", {{"s", {{"k", ""}}}}},
      {"empty value", "[s]\nk=\n", {{"s", {{"k", ""}}}}},
      {"number sign in a value", "[s]\nk=a # b\n", {{"s", {{"k", "a # b"}}}}},
      {"line feed within quotes", "[s]\nk='a\nb'\nl=c\n", {{"s", {{"k", "a\nb"}, {"l", "c"}}}}},
      {"names are folded", "[Net]\nIP=A\n", {{"net", {{"ip", "A"}}}}},
      {"section in two pieces", "[s]\na=1\n[t]\n[S]\nb=2\n", {{"s", {{"a", "1"}, {"b", "2"}}}, {"t", {}}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(ParseText(row.text), row.sections);
  }
}

TEST(TextForm, NamesTheLineThatIsWrong) {
  struct Row {
    const char* name;
    const char* text;
    const char* reason;
  };
  const Row rows[] = {
      {"key without section", "\nk=v\n", "line 2: this key is before the first [section]"},
      {"open header", "[s\nk=v\n", "line 1: \"]\" is missing"},
      {"text after a header", "[s] k=v\n", "line 1: unexpected text after the [section]"},
      {"twice", "[s]\nk=1\nK=2\n", "line 3: key 'k' in section 's' occurs twice"},
      {"open quote", "[s]\nk='v\n\n", "line 2: the quote is not closed"},
      {"open double quote", "[s]\nk=\"v", "line 2: the quote is not closed"},
      {"open escapes", "[s]\nk=$'v\\", "line 2: the quote is not closed"},
      {"unknown escape", "[s]\nk=$'\\q'\n", "line 2: unknown escape \\q"},
      {"no hexadecimal digit", "[s]\nk=$'\\x4g'\n", "line 2: \\x needs two hexadecimal digits"},
      {"no capital hexadecimal digit", "[s]\nk=$'\\xG4'\n", "line 2: \\x needs two hexadecimal digits"},
      {"after a value of two lines", "[s]\nk='\n'\nk=1\n", "line 4: key 'k' in section 's' occurs twice"},
      {"value that is not UTF-8", "[s]\nk=\xff\n", "line 2: the value of key 'k' in section 's' is not UTF-8"},
      {"name that is not ASCII", "[gr\xc3\xb6n]\n", "line 1: invalid name 'gr\xc3\xb6n': only ASCII is allowed"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    for (const std::string source : {"", "standard input"}) {
      try {
        ParseText(row.text, {source, std::nullopt});
        ADD_FAILURE() << "nothing thrown";
      } catch (const Failure& e) {
        EXPECT_EQ(e.Status(),
                  *row.text == '[' && row.text[1] == 'g' ? ExitStatus::InvalidName : ExitStatus::NotADocument);
        EXPECT_EQ(e.what(), (source.empty() ? "" : source + ": ") + row.reason);
      }
    }
  }
}

// Any registry whose names callers can reach is read back from what is printed of it.
TEST(TextForm, ReadsBackWhatItPrints) {
  std::mt19937 random(20240811);
  const std::string alphabet("a b'\"\\$#=[]\n\r\t\0\x1b`~%{}\x7f", 23);
  const auto text = [&](const std::string& characters) {
    std::string result;
    for (std::size_t i = random() % 6; i > 0; --i) {
      result += characters[random() % characters.size()];
    }
    return result;
  };
  for (int round = 0; round < 2000; ++round) {
    RegistrySections sections;
    for (std::size_t s = random() % 4; s > 0; --s) {
      RegistrySection& keys = sections[text(alphabet)];
      for (std::size_t k = random() % 4; k > 0; --k) {
        const std::string value = text(alphabet + "\xc3\xb6");
        keys[text(alphabet)] = IsUtf8(value) ? value : "";
      }
    }
    const std::string printed = PrintText(sections);
    ASSERT_EQ(ParseText(printed), sections) << "round " << round << " of the seed above: " << printed;
  }
}

}  // namespace
}  // namespace ledgerctl
