#include "lib/hardware/hardware_features.h"

#include <iterator>

#include "lib/platform/string_operations.h"

namespace {

// In the order of the bits.
constexpr const char* kNames[] = {
    "HDMI",
    "Component Video",
    "VGA",
    "Two Channel Audio",
    "Ethernet",
    "USB",
    "Serial Port 0",
    "Serial Port 1",
    "GPIO connector",
    "SVC button",
    "Reset button",
    "RTC",
    "Settings ROM",
    "microSD",
    "SDHC",
    "Six Channel Audio",
    "IR Blaster",
    "WiFi",
    "Serial Port 2",
    "Audio Input",
    "CEC",
    "Battery",
    "Portrait LCD",
    "HDMI Input",
    "Digital Tuner",
    "SPDIF",
    "Audio Input Loopback",
    "mSATA",
    "AC3",
    "EAC3",
    "reserved",
    "reserved",
    "Onboard Storage",
    "No 4K Decode",
    "No Bluetooth",
    "No PoE",
    "Internal Storage Only",
    "Disable Packet Capture",
};

}  // namespace

std::string HardwareFeatureName(unsigned bit) {
  if (bit < std::size(kNames)) {
    return kNames[bit];
  }
  return bit < kHardwareFlagBits ? bramble::strprintf("Unknown bit %u", bit) : "Unknown feature";
}
