// The registry for the client: each operation calls the daemon once over the system bus.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "registry/registry.h"

namespace ledgerctl {

/// The first operation connects to the bus. A later one connects again if the connection was lost. Only one thread may
/// use an object. The bus starts the daemon if it is configured to.
///
/// Operations throw Registry::Full if the daemon replies with that error. For all other errors they throw Failure:
/// InvalidName and NotADocument if the daemon refuses a name or a document, Usage for an argument that D-Bus cannot
/// carry (it has a NUL byte or is not UTF-8), NotRunning, Denied, NoAnswer, and DaemonError with the text of any other
/// error. If libdbus waits for the bus longer than the time limit, the program ends; see TimeLimit.
class RegistryProxy : public Registry {
public:
  /// `timeout` holds for each call; `shown_timeout` is how messages name it, in seconds.
  RegistryProxy(std::chrono::milliseconds timeout, std::string shown_timeout);
  ~RegistryProxy() override;

  std::string ReadAllJson() override;
  void WriteJson(const std::string& registry) override;
  std::string Read(const std::string& section, const std::string& key) override;
  void Write(const std::string& section, const std::string& key, const std::string& value) override;
  bool KeyExists(const std::string& section, const std::string& key) override;
  bool SectionExists(const std::string& section) override;
  void DeleteKey(const std::string& section, const std::string& key) override;
  void DeleteSection(const std::string& section) override;
  void DeleteAll() override;
  void SectionList(const SectionCallback& callback) override;
  void KeyList(const std::string& section, const KeyCallback& callback) override;
  void Flush() override;

private:
  class Bus;

  const std::unique_ptr<Bus> m_bus;
};

}  // namespace ledgerctl
