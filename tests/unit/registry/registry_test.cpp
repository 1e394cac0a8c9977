#include "registry/registry.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

namespace {

using namespace std::string_literals;

TEST(RegistryInvalidName, SaysTheNameAsGiven) {
  const Registry::InvalidName error("M\xC3\xBCller");
  EXPECT_STREQ(error.what(), "Invalid name: M\xC3\xBCller");
  EXPECT_EQ(error.Name(), "M\xC3\xBCller");
}

TEST(RegistryInvalidName, KeepsANameWithANulByte) { EXPECT_EQ(Registry::InvalidName("a\0\x80"s).Name(), "a\0\x80"s); }

TEST(RegistryInvalidJson, PutsNoBlankBehindTheColon) {
  const Registry::InvalidJson error("[1,2]");
  EXPECT_STREQ(error.what(), "Invalid JSON format:[1,2]");
  EXPECT_EQ(error.Detail(), "[1,2]");
}

TEST(RegistryInvalidJson, AcceptsAnEmptyDetail) {
  EXPECT_STREQ(Registry::InvalidJson("").what(), "Invalid JSON format:");
}

TEST(RegistryFull, HasAFixedText) { EXPECT_STREQ(Registry::Full().what(), "Registry full"); }

TEST(RegistryExceptions, KeepTheirTextWhenCopied) {
  const auto copy = [](const auto& error) { return error; };
  const auto name = copy(Registry::InvalidName(std::string(100, 'n')));
  const auto json = copy(Registry::InvalidJson(std::string(100, 'j')));
  EXPECT_EQ(name.what(), "Invalid name: " + std::string(100, 'n'));
  EXPECT_EQ(json.what(), "Invalid JSON format:" + std::string(100, 'j'));
}

// Which handler takes an exception depends on its bases.
TEST(RegistryExceptions, HaveTheBasesThatHandlersRelyOn) {
  EXPECT_TRUE((std::is_base_of_v<std::exception, Registry::InvalidName>));
  EXPECT_TRUE((std::is_base_of_v<std::exception, Registry::InvalidJson>));
  EXPECT_TRUE((std::is_base_of_v<std::runtime_error, Registry::Full>));
  EXPECT_FALSE((std::is_base_of_v<std::runtime_error, Registry::InvalidName>));
  EXPECT_FALSE((std::is_base_of_v<std::runtime_error, Registry::InvalidJson>));
}

}  // namespace
