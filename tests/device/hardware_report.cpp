// Prints every member of the hardware description of this board.
#include <cinttypes>
#include <cstdio>
#include <exception>

#include "lib/hardware/hardware_config.h"

namespace {

void Report(const HardwareConfig& hardware) {
  std::printf("revision %" PRId32 "\n", hardware.GetRevision());
  std::printf("board id %" PRId32 "\n", hardware.GetBoardId());
  std::printf("hardware flags 0x%" PRIx64 "\n", hardware.GetHardwareFlags());
  std::printf("family '%s'\n", hardware.GetFamily().c_str());
  std::printf("OEM id '%s'\n", hardware.GetOemId().c_str());
  std::printf("OEM model '%s'\n", hardware.GetOemModel().c_str());
  std::printf("bootloader version '%s'\n", hardware.GetBootloaderVersion().c_str());
  std::printf("secure keys %d\n", hardware.HasSecureKeys());
  std::printf("secure boot %d\n", hardware.HasSecureBoot());
  std::printf("secure id '%s'\n", hardware.GetSecureId().c_str());
  std::printf("registry path '%s'\n", hardware.GetRegistryPath().c_str());
  std::printf("features");
  const char* separator = " ";
  for (unsigned bit = 0; bit < 64; ++bit) {
    if (hardware.HasFeature(static_cast<HardwareFeature>(bit))) {
      std::printf("%s%s", separator, HardwareFeatureName(bit).c_str());
      separator = ", ";
    }
  }
  std::printf("\n");
}

}  // namespace

int main() {
  try {
    const HardwareConfig hardware;
    Report(HardwareConfig::GetInstance());
  } catch (const std::exception& e) {
    std::printf("hardware description threw: %s\n", e.what());
    return 1;
  }
}
