#include "lib/hardware/hardware_config.h"

#include <cstdio>

#include "lib/hardware/automatic_base.h"
#include "lib/platform/safe_print.h"

namespace {

constexpr char kRegistryPath[] = "/var/lib/plinthware/registry";

// This model has the connector, whatever its manufacturing data says.
constexpr char kModelWithGpioConnector[] = "5R377";

constexpr std::uint64_t Bit(HardwareFeature feature) { return std::uint64_t{1} << static_cast<unsigned>(feature); }

std::string Variable(const CfeEnvironment& environment, const char* name) {
  const auto found = environment.find(name);
  return found == environment.end() ? std::string() : found->second;
}

// Deliberate: a missing variable grants every feature, an empty one grants none.
std::uint64_t ParseHardwareFlags(const CfeEnvironment& environment) {
  const auto found = environment.find("PW_HWFLAGS");
  return found == environment.end() ? ~std::uint64_t{0} : ParseUnsigned(found->second);
}

}  // namespace

HardwareConfig::HardwareConfig() : HardwareConfig("/proc/boardid", GetCfeEnvironment) {}

HardwareConfig::HardwareConfig(const char* board_identity_path, const std::function<CfeEnvironment()>& environment) {
  ApplyBoardIdentity(ReadBoardIdentity(board_identity_path));
  ApplyEnvironment(environment());
}

bool HardwareConfig::HasFeature(HardwareFeature feature) const {
  return static_cast<unsigned>(feature) < kHardwareFlagBits && (m_hardware_flags & Bit(feature)) != 0;
}

std::string HardwareConfig::GetRegistryPath() const { return kRegistryPath; }

void HardwareConfig::ApplyBoardIdentity(const BoardIdentity& board) {
  m_revision = board.revision;
  m_board_id = board.board_id;
  m_family = board.family;
  m_bootloader_version = board.bootloader_version;
  m_secure_keys = board.secure_keys;
  m_secure_boot = board.secure_boot;
  m_secure_id = board.secure_id;
}

void HardwareConfig::ApplyEnvironment(const CfeEnvironment& environment) {
  if (Variable(environment, "PW_FORMAT") != "1") {
    bramble::SafePrint(stderr, "SRB not valid. Please run manufacturing test.\n");
    m_hardware_flags = 0;
    return;
  }
  m_hardware_flags = ParseHardwareFlags(environment);
  m_oem_id = Variable(environment, "PW_OEM_ID");
  m_oem_model = Variable(environment, "PW_OEM_MODEL");
  if (m_hardware_flags == 0) {
    bramble::SafePrint(stderr, "Hardware configuration bitfield is zero. Please reprogram SRB\n");
  }
  if (m_oem_model == kModelWithGpioConnector) {
    m_hardware_flags |= Bit(HardwareFeature::GpioConnector);
  }
}
