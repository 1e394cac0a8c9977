#include "client/failure.h"

#include <cstring>
#include <exception>

#include "client/quote_word.h"
#include "registry/registry.h"

namespace ledgerctl {

Failure LocalFailure(const std::string& context, int error_number) {
  return Failure(ExitStatus::Local, context + ": " + std::strerror(error_number));
}

Failure CurrentFailure() {
  try {
    throw;
  } catch (const Failure& e) {
    return e;
  } catch (const Registry::InvalidName& e) {
    return Failure(ExitStatus::InvalidName, "invalid name " + QuoteWord(e.Name()) + ": only ASCII is allowed");
  } catch (const Registry::InvalidJson&) {
    return Failure(ExitStatus::NotADocument, "not a registry document");
  } catch (const Registry::Full&) {
    return Failure(ExitStatus::Full,
                   "registry full (" + std::to_string(kRegistryCapacity) + " bytes); nothing changed");
  } catch (const std::exception& e) {
    return Failure(ExitStatus::Local, e.what());
  }
}

}  // namespace ledgerctl
