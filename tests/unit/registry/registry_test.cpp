#include "registry/registry.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

namespace {

using namespace std::string_literals;

// Copies, because an exception is copied when it is thrown.
template <typename Exception>
Exception Copied(const std::string& text) {
  const Exception original(text);
  return original;
}

TEST(RegistryExceptions, HaveTheirTextAndTheGivenString) {
  for (const std::string& text : {"M\xC3\xBCller"s, "[1,2]"s, ""s, std::string(100, 'x')}) {
    SCOPED_TRACE(text);
    const auto name = Copied<Registry::InvalidName>(text);
    EXPECT_EQ(name.what(), "Invalid name: " + text);
    EXPECT_EQ(name.Name(), text);
    const auto json = Copied<Registry::InvalidJson>(text);
    EXPECT_EQ(json.what(), "Invalid JSON format:" + text);
    EXPECT_EQ(json.Detail(), text);
  }
  EXPECT_EQ(Registry::InvalidName("a\0\x80"s).Name(), "a\0\x80"s);
  EXPECT_STREQ(Registry::Full().what(), "Registry full");
}

// The bases decide which handler catches an exception.
TEST(RegistryExceptions, HaveTheBasesThatHandlersRelyOn) {
  EXPECT_TRUE((std::is_base_of_v<std::exception, Registry::InvalidName>));
  EXPECT_TRUE((std::is_base_of_v<std::exception, Registry::InvalidJson>));
  EXPECT_TRUE((std::is_base_of_v<std::runtime_error, Registry::Full>));
  EXPECT_FALSE((std::is_base_of_v<std::runtime_error, Registry::InvalidName>));
  EXPECT_FALSE((std::is_base_of_v<std::runtime_error, Registry::InvalidJson>));
}

}  // namespace
