// The daemon's registry as the client has it: each operation is one call over the system bus.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "registry/registry.h"

namespace ledgerctl {

/// Connects when it is first called, and again if the connection is lost; one thread. The bus starts the daemon if it
/// is configured to.
///
/// Operations throw Registry::Full where the daemon answers so, else Failure: InvalidName and NotADocument for the
/// daemon's other refusals, Usage for an argument that D-Bus cannot carry (a NUL byte, or no UTF-8), NotRunning,
/// Denied, NoAnswer, and DaemonError with the text of any other error. A daemon or a bus that takes no calls ends
/// the program; see TimeLimit.
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
