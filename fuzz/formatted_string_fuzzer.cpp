// Fuzzer of the length limit of formatted strings. The input is a line with a width, a line with a precision, then a
// text.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/support/input.h"
#include "fuzz/support/require.h"
#include "lib/platform/string_operations.h"

namespace {

constexpr std::size_t kGreatest = 9000;

// Formats "%*.*s" by hand: the text up to its first NUL, cut to the precision, padded on the left to the width.
std::string Whole(std::size_t width, std::size_t precision, const std::string& text) {
  const std::string shown = std::string(text.c_str()).substr(0, precision);
  return std::string(width - std::min(width, shown.size()), ' ') + shown;
}

std::string Capped(const std::string& whole) { return whole.size() <= 4000 ? whole : whole.substr(0, 3997) + "..."; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::size_t width = input.TakeNumber(kGreatest);
  const std::size_t precision = input.TakeNumber(kGreatest);
  const std::string text = input.TakeRest();

  const std::string whole = Whole(width, precision, text);
  fuzz::RequireEqual(bramble::strprintf("%*.*s", static_cast<int>(width), static_cast<int>(precision), text.c_str()),
                     Capped(whole), "the formatted text");
  fuzz::RequireEqual(bramble::strprintf("<%s> %zu%%", text.c_str(), width),
                     Capped("<" + std::string(text.c_str()) + "> " + std::to_string(width) + "%"),
                     "the formatted text with several conversions");
  return 0;
}
