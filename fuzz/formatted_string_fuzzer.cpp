// Fuzzer of the length limit of formatted strings. The input is a line with a width, a line with a precision, then a
// text.
#include <algorithm>
#include <cstddef>
#include <string>

#include "fuzz/support/fuzzer.h"
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

void fuzz::Run(Input input) {
  const std::size_t width = input.TakeNumber(kGreatest);
  const std::size_t precision = input.TakeNumber(kGreatest);
  const std::string text = input.TakeRest();

  const std::string whole = Whole(width, precision, text);
  RequireEqual(bramble::strprintf("%*.*s", static_cast<int>(width), static_cast<int>(precision), text.c_str()),
               Capped(whole), "the formatted text");
  RequireEqual(bramble::strprintf("<%s> %zu%%", text.c_str(), width),
               Capped("<" + std::string(text.c_str()) + "> " + std::to_string(width) + "%"),
               "the formatted text with several conversions");
}
