// Fuzzer of percent escaping with any set of bytes, and of its inverse. The input is a line with the set, then the
// text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/support/input.h"
#include "fuzz/support/require.h"
#include "fuzz/support/text_model.h"
#include "lib/platform/escape.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  // A NUL byte ends the set.
  const std::string set = input.TakeField().c_str();
  const std::string text = input.TakeRest();

  fuzz::RequireEqual(escape::UnescapeCopy(text), fuzz::ModelUnescape(text), "the unescaped text");
  const std::string escaped = escape::EscapeCopy(text, set.c_str());
  fuzz::RequireEqual(escaped, fuzz::ModelEscape(text, set), "the escaped text");

  const std::string reversible = escape::EscapeCopy(text, (set + '%').c_str());
  fuzz::RequireEqual(escape::UnescapeCopy(reversible), text, "the text after a round trip");
  if (text.find('%') == std::string::npos) {
    fuzz::RequireEqual(escape::UnescapeCopy(escaped), text, "a text without a percent sign after a round trip");
  }

  const std::string printable = escape::PrintableCopy(text);
  for (const char byte : printable) {
    fuzz::Require(byte >= ' ' && byte <= '~', "the printable copy is printable");
  }
  fuzz::RequireEqual(escape::UnescapeCopy(printable), text, "the unescaped printable copy");
  for (const char byte : escape::AsciiCopy(text)) {
    fuzz::Require(static_cast<unsigned char>(byte) < 0x80, "the ASCII copy is ASCII");
  }
  return 0;
}
