#include "fuzz/support/fuzzer.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "lib/platform/escape.h"
#include "tests/unit/support/private_mounts.h"

namespace fuzz {

std::string Input::TakeField() {
  std::string field;
  while (!AtEnd()) {
    char byte = TakeByte();
    if (byte == '\n') {
      break;
    }
    if (byte == '\\' && !AtEnd()) {
      byte = TakeByte();
    }
    field += byte;
  }
  return field;
}

std::size_t Input::TakeNumber(std::size_t greatest) {
  return std::min<std::size_t>(std::strtoul(TakeField().c_str(), nullptr, 10), greatest);
}

std::string Input::TakeRest() { return std::string(std::exchange(m_rest, {})); }

char Input::TakeByte() {
  const char byte = m_rest.front();
  m_rest.remove_prefix(1);
  return byte;
}

void Prepare() {
  // The file over /dev/kmsg stays mounted after its name is removed.
  test_support::EnterPrivateMounts();
  test_support::LeavePrivateMounts();
}

void Require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "not true: %s\n", what);
    std::abort();
  }
}

void RequireEqual(const std::string& actual, const std::string& expected, const char* what) {
  if (actual != expected) {
    std::fprintf(stderr, "%s\n  is       '%s'\n  expected '%s'\n", what, escape::PrintableCopy(actual).c_str(),
                 escape::PrintableCopy(expected).c_str());
    std::abort();
  }
}

void RequireExpected(const model::Reply& actual, const model::Reply& expected, const std::string& what) {
  if (!model::IsExpected(actual, expected)) {
    RequireEqual(model::Describe(actual), model::Describe(expected), what.c_str());
    Require(false, "the long replies are equal");
  }
}

}  // namespace fuzz
