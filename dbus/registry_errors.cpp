#include "dbus/registry_errors.h"

#include <cstring>
#include <exception>

#include "lib/platform/escape.h"
#include "lib/platform/string_operations.h"
#include "registry/registry.h"

const char RegistryError::kInvalidName[] = "com.tavimesh.Registry.Errors.InvalidName";
const char RegistryError::kInvalidJson[] = "com.tavimesh.Registry.Errors.InvalidJson";
const char RegistryError::kFull[] = "com.tavimesh.Registry.Errors.Full";
const char RegistryError::kException[] = "com.tavimesh.Registry.Errors.Exception";

namespace {

// Escaping never shortens a text, so bytes after the limit are never visible. This avoids a copy of a hostile text of
// megabytes.
std::string FitForBus(const std::string& text) {
  const std::string beginning(text.c_str(), ::strnlen(text.c_str(), bramble::kLongestFormattedString + 1));
  return bramble::strprintf("%s", escape::AsciiCopy(beginning).c_str());
}

}  // namespace

RegistryError::RegistryError(const char* name, const std::string& text)
    : m_text(std::make_shared<const std::string>(FitForBus(text))) {
  set(name, m_text->c_str());
}

void ThrowAsRegistryError() {
  try {
    throw;
  } catch (const Registry::InvalidName&) {
    throw RegistryError(RegistryError::kInvalidName, "Invalid Name");
  } catch (const Registry::InvalidJson&) {
    throw RegistryError(RegistryError::kInvalidJson, "Invalid Json");
  } catch (const Registry::Full&) {
    throw RegistryError(RegistryError::kFull, "Full");
  } catch (const std::exception& e) {
    throw RegistryError(RegistryError::kException, e.what());
  } catch (...) {
    throw RegistryError(RegistryError::kInvalidName, "Unknown exception");
  }
}
