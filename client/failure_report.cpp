#include "client/failure_report.h"

#include <exception>

#include "client/text_form.h"
#include "registry/registry.h"

namespace ledgerctl {

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
    return Failure(ExitStatus::Full, "registry full (16383 bytes); nothing changed");
  } catch (const std::exception& e) {
    return Failure(ExitStatus::Local, e.what());
  }
}

}  // namespace ledgerctl
