#include "client/text_form.h"

#include "client/quote_word.h"
#include "tests/unit/client/client_fixture.h"

namespace ledgerctl {
namespace {

TEST(QuoteWord, QuotesForAShellAndEscapesForATerminal) {
  struct Row {
    const char* name;
    std::string text;
    std::string word;
    bool is_utf8 = true;
  };
  const Row rows[] = {
      {"plain", "player-7", "player-7"},
      {"all plain characters", "aZ09_@%+:,./-", "aZ09_@%+:,./-"},
      {"empty", "", "''"},
      {"space", "a b", "'a b'"},
      {"equals", "a=b", "'a=b'"},
      {"comment", "#a", "'#a'"},
      {"header", "[a]", "'[a]'"},
      {"single quote", "it's", "'it'\\''s'"},
      {"dollar and backquote", "$a`b`", "'$a`b`'"},
      {"backslash", "a\\b", "'a\\b'"},
      {"newline", "a\nb", "$'a\\nb'"},
      {"carriage return and tab", "\r\t", "$'\\r\\t'"},
      {"quote, backslash and newline", "'\\\n", "$'\\'\\\\\\n'"},
      {"escape sequence", "\033[31m", "$'\\x1b[31m'"},
      {"NUL", std::string("\0", 1), "$'\\x00'"},
      {"delete", "\x7f", "$'\\x7f'"},
      {"two bytes", "gr\xc3\xb6n", "'gr\xc3\xb6n'"},
      {"three bytes", "\xe2\x82\xac", "'\xe2\x82\xac'"},
      {"four bytes", "\xf0\x9f\x98\x80", "'\xf0\x9f\x98\x80'"},
      {"control character of two bytes", "\xc2\x85", "$'\\xc2\\x85'"},
      {"change of the direction", "\xe2\x80\xae", "$'\\xe2\\x80\\xae'"},
      {"continuation alone", "a\x80", "$'a\\x80'", false},
      {"byte that is not UTF-8 before a character", "\xff\xc3\xb6", "$'\\xff\xc3\xb6'", false},
      {"continuations alone", "\xbf\xbf", "$'\\xbf\\xbf'", false},
      {"cut character", "\xe2\x82", "$'\\xe2\\x82'", false},
      {"character that another one cuts", "\xe2\x82\xc3", "$'\\xe2\\x82\\xc3'", false},
      {"two bytes for one", "\xc1\xbf", "$'\\xc1\\xbf'", false},
      {"three bytes for two", "\xe0\x9f\xbf", "$'\\xe0\\x9f\\xbf'", false},
      {"four bytes for three", "\xf0\x8f\xbf\xbf", "$'\\xf0\\x8f\\xbf\\xbf'", false},
      {"first surrogate", "\xed\xa0\x80", "$'\\xed\\xa0\\x80'", false},
      {"last surrogate", "\xed\xbf\xbf", "$'\\xed\\xbf\\xbf'", false},
      {"beyond the last character", "\xf4\x90\x80\x80", "$'\\xf4\\x90\\x80\\x80'", false},
      {"lead of five bytes", "\xf8\x90\x80\x80", "$'\\xf8\\x90\\x80\\x80'", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(QuoteWord(row.text), row.word);
    EXPECT_EQ(IsUtf8(row.text), row.is_utf8);
    if (row.is_utf8) {
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

TEST(ShownKey, QuotesNamesAlways) {
  EXPECT_EQ(ShownKey("a", "b\n"), "key $'b\\n' in section 'a'");
  EXPECT_EQ(ShownSection(""), "section ''");
}

TEST(TextForm, HasASectionAndItsKeysOnLines) {
  EXPECT_EQ(PrintText({}), "");
  EXPECT_EQ(PrintText({{"", {{"", "x"}}}, {"empty", {}}, {"net", {{"[k", ""}, {"ip", "10.0.0.1"}}}}),
            "['']\n''=x\n\n[empty]\n\n[net]\n'[k'=\nip=10.0.0.1\n");
}

TEST(TextForm, IsReadWithSpacesCommentsAndQuotes) {
  struct Row {
    const char* name;
    const char* text;
    RegistrySections sections;
  };
  const Row rows[] = {
      {"nothing", "", {}},
      {"comments and empty lines", "# a\n\n  \t\n  # b\n[s]\n", {{"s", {}}}},
      {"no newline at the end", "[s]\nk=v", {{"s", {{"k", "v"}}}}},
      {"CR LF", "[s]\r\nk=v\r\n", {{"s", {{"k", "v"}}}}},
      {"spaces around", " [ s ] \n k = v \n", {{"s", {{"k", "v"}}}}},
      {"spaces within", "[a b]\nc d=e  f\n", {{"a b", {{"c d", "e  f"}}}}},
      {"quoted spaces", "[s]\nk=' v '\n", {{"s", {{"k", " v "}}}}},
      {"quotes of both kinds", "[s]\nk=a'b\"'\"c'\\$\\\"\\`\\n\"\n", {{"s", {{"k", "ab\"c'$\"`\\n"}}}}},
      {"escapes", "[s]\nk=$'\\xC3\\xb6\\\"'\n", {{"s", {{"k", "\xc3\xb6\""}}}}},
      {"backslash at the end of a line", "[s]\nk=a\\\nl=b\n", {{"s", {{"k", "a\\"}, {"l", "b"}}}}},
      {"backslash", "[s]\nk=\\'\\ \n", {{"s", {{"k", "' "}}}}},
      {"equals in a value", "[s]\nk=a=b\n", {{"s", {{"k", "a=b"}}}}},
      {"no equals", "[s]\nk\n", {{"s", {{"k", ""}}}}},
      {"empty value", "[s]\nk=\n", {{"s", {{"k", ""}}}}},
      {"number sign in a value", "[s]\nk=a # b\n", {{"s", {{"k", "a # b"}}}}},
      {"newline within quotes", "[s]\nk='a\nb'\nl=c\n", {{"s", {{"k", "a\nb"}, {"l", "c"}}}}},
      {"names are folded", "[Net]\nIP=A\n", {{"net", {{"ip", "A"}}}}},
      {"section in two pieces", "[s]\na=1\n[t]\n[S]\nb=2\n", {{"s", {{"a", "1"}, {"b", "2"}}}, {"t", {}}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(ParseText(row.text), row.sections);
  }
}

TEST(TextForm, ReportsTheLineOfAMistake) {
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
    const int status = std::string(row.reason).find("invalid name") == std::string::npos ? 4 : 3;
    EXPECT_EQ(test_client::FailureOf([&] { ParseText(row.text); }), test_client::Fails(status, row.reason));
    EXPECT_EQ(test_client::FailureOf([&] {
                ParseText(row.text, {"x", std::nullopt});
              }),
              test_client::Fails(status, std::string("x: ") + row.reason));
  }
}

}  // namespace
}  // namespace ledgerctl
