#include "dbus/registry_errors.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>

#include "lib/platform/errno_exception.h"
#include "lib/platform/persistent_store.h"
#include "registry/registry.h"

namespace {

TEST(RegistryErrors, HaveTheNameAndTextForEachClassOfException) {
  const std::string kPrefix = "com.tavimesh.Registry.Errors.";
  const struct {
    const char* exception;
    std::function<void()> raise;
    std::string name;
    std::string text;
  } rows[] = {
      {"invalid name", [] { throw Registry::InvalidName("caf\xC3\xA9"); }, "InvalidName", "Invalid Name"},
      {"invalid JSON", [] { throw Registry::InvalidJson("[1]"); }, "InvalidJson", "Invalid Json"},
      {"registry full", [] { throw Registry::Full(); }, "Full", "Full"},
      {"store full", [] { throw PersistentStore::Full(); }, "Exception", "Store full"},
      {"system call", [] { throw bramble::ErrnoException(28); }, "Exception", "No space left on device (28)"},
      {"runtime error", [] { throw std::runtime_error("100% wrong\n"); }, "Exception", "100% wrong\n"},
      {"no memory", [] { throw std::bad_alloc(); }, "Exception", "std::bad_alloc"},
      {"empty text", [] { throw std::runtime_error(""); }, "Exception", ""},
      {"not a std::exception", [] { throw 42; }, "InvalidName", "Unknown exception"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.exception);
    try {
      try {
        row.raise();
        ADD_FAILURE() << "no exception";
      } catch (...) {
        ThrowAsRegistryError();
      }
    } catch (const RegistryError& e) {
      EXPECT_EQ(e.name(), kPrefix + row.name);
      EXPECT_EQ(e.message(), row.text);
      EXPECT_EQ(e.what(), row.text);
    }
  }
}

TEST(RegistryErrors, KeepTheirTextAfterTheOriginalAndItsStringAreDestroyed) {
  auto text = std::make_unique<std::string>(100, 'x');
  auto original = std::make_unique<RegistryError>(RegistryError::kException, *text);
  text.reset();
  const RegistryError copy = *original;
  original.reset();
  EXPECT_EQ(copy.message(), std::string(100, 'x'));
}

TEST(RegistryErrors, EscapeBytesThatAreNotAscii) {
  const RegistryError error(RegistryError::kException, "half \xC3 and whole \xC3\xA9");
  EXPECT_STREQ(error.message(), "half %c3 and whole %c3%a9");
}

TEST(RegistryErrors, CutTheirTextTo4000Bytes) {
  EXPECT_EQ(RegistryError(RegistryError::kException, std::string(4000, 'x')).message(), std::string(4000, 'x'));
  EXPECT_EQ(RegistryError(RegistryError::kException, std::string(4001, 'x')).message(), std::string(3997, 'x') + "...");
  const RegistryError hostile(RegistryError::kException, std::string(5000000, '\xC3'));
  EXPECT_EQ(std::string(hostile.message()).size(), 4000U);
}

}  // namespace
