#include "lib/hardware/hardware_features.h"

#include <gtest/gtest.h>

#include <climits>

// The names are a list without numbers. A missing or extra name shifts all later names, so a later row of this table
// fails.
TEST(HardwareFeatures, HaveTheRightBitsAndNames) {
  const struct {
    HardwareFeature feature;
    unsigned bit;
    const char* name;
  } rows[] = {
      {HardwareFeature::Hdmi, 0, "HDMI"},
      {HardwareFeature::GpioConnector, 8, "GPIO connector"},
      {HardwareFeature::IrBlaster, 16, "IR Blaster"},
      {HardwareFeature::DigitalTuner, 24, "Digital Tuner"},
      {HardwareFeature::Eac3, 29, "EAC3"},
      {HardwareFeature{30}, 30, "reserved"},
      {HardwareFeature{31}, 31, "reserved"},
      {HardwareFeature::OnboardStorage, 32, "Onboard Storage"},
      {HardwareFeature::DisablePacketCapture, 37, "Disable Packet Capture"},
      {HardwareFeature{38}, 38, "Unknown bit 38"},
      {HardwareFeature{63}, 63, "Unknown bit 63"},
      {HardwareFeature{64}, 64, "Unknown feature"},
      {HardwareFeature{UINT_MAX}, UINT_MAX, "Unknown feature"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.bit);
    EXPECT_EQ(static_cast<unsigned>(row.feature), row.bit);
    EXPECT_EQ(HardwareFeatureName(row.bit), row.name);
  }
}
