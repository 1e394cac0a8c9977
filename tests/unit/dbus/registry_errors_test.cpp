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

struct Row {
  const char* name;
  std::function<void()> raise;
  std::string error_name;
  std::string error_text;
};

RegistryError Translate(const std::function<void()>& raise) {
  try {
    try {
      raise();
    } catch (...) {
      ThrowAsRegistryError();
    }
  } catch (const RegistryError& e) {
    return e;
  }
  throw std::logic_error("nothing was thrown");
}

TEST(RegistryErrors, MapsEachClassOfExceptionToItsNameAndText) {
  const Row rows[] = {
      {"invalid name", [] { throw Registry::InvalidName("caf\xC3\xA9"); }, RegistryError::kInvalidName, "Invalid Name"},
      {"invalid JSON", [] { throw Registry::InvalidJson("[1]"); }, RegistryError::kInvalidJson, "Invalid Json"},
      {"registry full", [] { throw Registry::Full(); }, RegistryError::kFull, "Full"},
      {"store full", [] { throw PersistentStore::Full(); }, RegistryError::kException, "Store full"},
      {"system call", [] { throw bramble::ErrnoException(28); }, RegistryError::kException,
       "No space left on device (28)"},
      {"runtime error", [] { throw std::runtime_error("100% wrong\n"); }, RegistryError::kException, "100% wrong\n"},
      {"no memory", [] { throw std::bad_alloc(); }, RegistryError::kException, "std::bad_alloc"},
      {"empty text", [] { throw std::runtime_error(""); }, RegistryError::kException, ""},
      {"not a std::exception", [] { throw 42; }, RegistryError::kInvalidName, "Unknown exception"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const RegistryError error = Translate(row.raise);
    EXPECT_STREQ(error.name(), row.error_name.c_str());
    EXPECT_STREQ(error.message(), row.error_text.c_str());
    EXPECT_STREQ(error.what(), row.error_text.c_str());
  }
}

TEST(RegistryErrors, NamesAreThoseOfTheInterface) {
  EXPECT_STREQ(RegistryError::kInvalidName, "com.tavimesh.Registry.Errors.InvalidName");
  EXPECT_STREQ(RegistryError::kInvalidJson, "com.tavimesh.Registry.Errors.InvalidJson");
  EXPECT_STREQ(RegistryError::kFull, "com.tavimesh.Registry.Errors.Full");
  EXPECT_STREQ(RegistryError::kException, "com.tavimesh.Registry.Errors.Exception");
}

TEST(RegistryErrors, TextOutlivesTheStringThatItWasCopiedFrom) {
  std::string text(100, 'x');
  const RegistryError error(RegistryError::kException, text);
  text.assign(100, 'y');
  EXPECT_EQ(error.message(), std::string(100, 'x'));
}

TEST(RegistryErrors, CopyKeepsTheTextAfterTheOriginalIsDestroyed) {
  const auto original = std::make_unique<RegistryError>(RegistryError::kException, std::string(100, 'x'));
  const RegistryError copy = *original;
  EXPECT_EQ(copy.message(), std::string(100, 'x'));
}

TEST(RegistryErrors, BytesThatAreNotAsciiAreEscaped) {
  const RegistryError error(RegistryError::kException, "half \xC3 and whole \xC3\xA9");
  EXPECT_STREQ(error.message(), "half %c3 and whole %c3%a9");
}

TEST(RegistryErrors, TextIsCutTo4000Bytes) {
  EXPECT_EQ(RegistryError(RegistryError::kException, std::string(4000, 'x')).message(), std::string(4000, 'x'));
  EXPECT_EQ(RegistryError(RegistryError::kException, std::string(4001, 'x')).message(), std::string(3997, 'x') + "...");
  const RegistryError hostile(RegistryError::kException, std::string(5000000, '\xC3'));
  EXPECT_EQ(std::string(hostile.message()).size(), 4000u);
}

}  // namespace
