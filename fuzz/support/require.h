// The checks of the fuzzers. A failed check prints the actual and the expected value and aborts, which makes the
// fuzzing engine keep the input.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "lib/platform/escape.h"

namespace fuzz {

inline void Require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "not true: %s\n", what);
    std::abort();
  }
}

inline void RequireEqual(const std::string& actual, const std::string& expected, const char* what) {
  if (actual != expected) {
    std::fprintf(stderr, "%s\n  is       '%s'\n  expected '%s'\n", what, escape::PrintableCopy(actual).c_str(),
                 escape::PrintableCopy(expected).c_str());
    std::abort();
  }
}

}  // namespace fuzz
