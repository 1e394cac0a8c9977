// Running an operation of the back end with its allocations failing, as the tests about the lack of memory do.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "registry/registry_back_end.h"
#include "tests/unit/support/failing_new.h"

namespace test_registry {

using test_support::FailingNew;

// More allocations than any of the operations needs: a test that counts up to here has found none.
constexpr std::size_t kTooMany = 5000;

// Too long for the string's own buffer, so that every copy allocates.
inline const std::string kLong = "a value that is longer than the buffer within a string object";
inline const std::string kText =
    "[a section with a rather long name]\na key with a rather long name=" + kLong + "\n[s]\nj=1\nk=" + kLong + "\n";

// The parameter says which allocations fail.
class ShortOfMemory : public testing::TestWithParam<FailingNew::Lack> {};

inline const auto kEachLack =
    testing::Values(FailingNew::Lack::OfOneAllocation, FailingNew::Lack::OfTwoInARow, FailingNew::Lack::FromThenOn);

inline std::string LackName(const testing::TestParamInfo<FailingNew::Lack>& test) {
  const char* const names[] = {"OneAllocationFails", "TwoAllocationsInARowFail", "AllFurtherAllocationsFail"};
  return names[static_cast<std::size_t>(test.param)];
}

inline RegistrySections Table(RegistryBackEnd& registry) {
  std::vector<std::string> names;
  registry.SectionList([&](const std::string& name) { names.push_back(name); });
  RegistrySections table;
  for (const std::string& name : names) {
    table[name] = registry.KeyList(name);
  }
  return table;
}

// Runs the operation with its nth allocation failing. Returns whether one failed; `thrown` says what came of it.
inline bool RunShortOfMemory(std::size_t nth, FailingNew::Lack lack, const std::function<void()>& operation,
                             std::string& thrown) {
  thrown.clear();
  bool has_failed = false;
  try {
    const FailingNew failing(nth, lack);
    try {
      operation();
    } catch (...) {
      has_failed = failing.HasFailed();
      throw;
    }
    has_failed = failing.HasFailed();
  } catch (const std::bad_alloc&) {
    thrown = "bad_alloc";
  } catch (const Registry::InvalidName&) {
    thrown = "InvalidName";
  } catch (const Registry::InvalidJson&) {
    thrown = "InvalidJson";
  } catch (const Registry::Full&) {
    thrown = "Full";
  } catch (const std::exception& e) {
    thrown = e.what();
  }
  return has_failed;
}

}  // namespace test_registry
