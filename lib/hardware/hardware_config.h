// The description of the board that the process runs on. It is built once, at start-up.
#pragma once

#include <boost/thread/mutex.hpp>
#include <cstdint>
#include <functional>
#include <string>

#include "lib/hardware/board_identity.h"
#include "lib/hardware/cfe_environment.h"
#include "lib/hardware/hardware_features.h"
#include "lib/platform/singleton.h"

/// main() owns it and constructs it before any other thread exists. It is immutable from then on, so any thread may
/// read it. Bad or missing hardware data never makes the construction fail: the defaults are kept, and a line on
/// standard error reports what a technician should know.
class alignas(8) HardwareConfig : public bramble::Singleton<HardwareConfig> {
public:
  /// Describes this device from "/proc/boardid" and the bootloader environment in NAND. Throws std::bad_alloc, and
  /// boost::thread_resource_error if no mutex can be created. The instance is then not registered.
  HardwareConfig();

  /// Uses other sources: a board identity file, and a function that returns the bootloader environment.
  HardwareConfig(const char* board_identity_path, const std::function<CfeEnvironment()>& environment);

  /// -1 if not known.
  std::int32_t GetRevision() const { return m_revision; }
  std::int32_t GetBoardId() const { return m_board_id; }
  std::uint64_t GetHardwareFlags() const { return m_hardware_flags; }
  std::string GetFamily() const { return m_family; }
  std::string GetOemId() const { return m_oem_id; }
  std::string GetOemModel() const { return m_oem_model; }
  std::string GetBootloaderVersion() const { return m_bootloader_version; }
  bool HasSecureKeys() const { return m_secure_keys; }
  bool HasSecureBoot() const { return m_secure_boot; }
  std::string GetSecureId() const { return m_secure_id; }

  /// Returns false for a bit number of 64 or more.
  bool HasFeature(HardwareFeature feature) const;

  /// Returns the path of the registry file. It is the same on every board.
  std::string GetRegistryPath() const;

private:
  void ApplyBoardIdentity(const BoardIdentity& board);
  void ApplyEnvironment(const CfeEnvironment& environment);

  std::int32_t m_revision = -1;
  std::int32_t m_board_id = -1;
  std::uint64_t m_hardware_flags = 0;
  std::string m_family;
  std::string m_oem_id;
  std::string m_oem_model;
  std::string m_bootloader_version;
  mutable boost::mutex m_lock;  // for queries that need serialising; the members above do not need it
  bool m_secure_keys = false;
  bool m_secure_boot = false;
  std::string m_secure_id;
};
