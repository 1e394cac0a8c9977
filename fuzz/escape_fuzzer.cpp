// Fuzzer of percent escaping with any set of bytes, and of its inverse. The input is a line with the set, then the
// text.
#include <string>

#include "fuzz/support/fuzzer.h"
#include "lib/platform/escape.h"

void fuzz::Run(Input input) {
  // A NUL byte ends the set.
  const std::string set = input.TakeField().c_str();
  const std::string text = input.TakeRest();

  RequireEqual(escape::UnescapeCopy(text), model::Unescape(text), "the unescaped text");
  const std::string escaped = escape::EscapeCopy(text, set.c_str());
  RequireEqual(escaped, model::Escape(text, set), "the escaped text");

  const std::string reversible = escape::EscapeCopy(text, (set + '%').c_str());
  RequireEqual(escape::UnescapeCopy(reversible), text, "the text after a round trip");
  if (text.find('%') == std::string::npos) {
    RequireEqual(escape::UnescapeCopy(escaped), text, "a text without a percent sign after a round trip");
  }

  const std::string printable = escape::PrintableCopy(text);
  for (const char byte : printable) {
    Require(byte >= ' ' && byte <= '~', "the printable copy is printable");
  }
  RequireEqual(escape::UnescapeCopy(printable), text, "the unescaped printable copy");
  for (const char byte : escape::AsciiCopy(text)) {
    Require(static_cast<unsigned char>(byte) < 0x80, "the ASCII copy is ASCII");
  }
}
