#include "lib/hardware/hardware_features.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

struct Feature {
  HardwareFeature feature;
  unsigned bit;
  const char* name;
};

constexpr Feature kFeatures[] = {
    {HardwareFeature::Hdmi, 0, "HDMI"},
    {HardwareFeature::ComponentVideo, 1, "Component Video"},
    {HardwareFeature::Vga, 2, "VGA"},
    {HardwareFeature::TwoChannelAudio, 3, "Two Channel Audio"},
    {HardwareFeature::Ethernet, 4, "Ethernet"},
    {HardwareFeature::Usb, 5, "USB"},
    {HardwareFeature::SerialPort0, 6, "Serial Port 0"},
    {HardwareFeature::SerialPort1, 7, "Serial Port 1"},
    {HardwareFeature::GpioConnector, 8, "GPIO connector"},
    {HardwareFeature::SvcButton, 9, "SVC button"},
    {HardwareFeature::ResetButton, 10, "Reset button"},
    {HardwareFeature::Rtc, 11, "RTC"},
    {HardwareFeature::SettingsRom, 12, "Settings ROM"},
    {HardwareFeature::MicroSd, 13, "microSD"},
    {HardwareFeature::Sdhc, 14, "SDHC"},
    {HardwareFeature::SixChannelAudio, 15, "Six Channel Audio"},
    {HardwareFeature::IrBlaster, 16, "IR Blaster"},
    {HardwareFeature::WiFi, 17, "WiFi"},
    {HardwareFeature::SerialPort2, 18, "Serial Port 2"},
    {HardwareFeature::AudioInput, 19, "Audio Input"},
    {HardwareFeature::Cec, 20, "CEC"},
    {HardwareFeature::Battery, 21, "Battery"},
    {HardwareFeature::PortraitLcd, 22, "Portrait LCD"},
    {HardwareFeature::HdmiInput, 23, "HDMI Input"},
    {HardwareFeature::DigitalTuner, 24, "Digital Tuner"},
    {HardwareFeature::Spdif, 25, "SPDIF"},
    {HardwareFeature::AudioInputLoopback, 26, "Audio Input Loopback"},
    {HardwareFeature::MSata, 27, "mSATA"},
    {HardwareFeature::Ac3, 28, "AC3"},
    {HardwareFeature::Eac3, 29, "EAC3"},
    {HardwareFeature::OnboardStorage, 32, "Onboard Storage"},
    {HardwareFeature::NoDecode4K, 33, "No 4K Decode"},
    {HardwareFeature::NoBluetooth, 34, "No Bluetooth"},
    {HardwareFeature::NoPoE, 35, "No PoE"},
    {HardwareFeature::InternalStorageOnly, 36, "Internal Storage Only"},
    {HardwareFeature::DisablePacketCapture, 37, "Disable Packet Capture"},
};

}  // namespace

TEST(HardwareFeatures, HaveTheirBitsAndNames) {
  for (const Feature& row : kFeatures) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(static_cast<unsigned>(row.feature), row.bit);
    EXPECT_EQ(HardwareFeatureName(row.bit), row.name);
  }
}

TEST(HardwareFeatures, ReserveTwoBits) {
  EXPECT_EQ(HardwareFeatureName(30), "reserved");
  EXPECT_EQ(HardwareFeatureName(31), "reserved");
}

TEST(HardwareFeatures, NumberBitsWithoutAName) {
  for (unsigned bit = 38; bit < 64; ++bit) {
    EXPECT_EQ(HardwareFeatureName(bit), "Unknown bit " + std::to_string(bit));
  }
}

TEST(HardwareFeatures, AreUnknownBeyondTheFlags) {
  EXPECT_EQ(HardwareFeatureName(64), "Unknown feature");
  EXPECT_EQ(HardwareFeatureName(UINT_MAX), "Unknown feature");
}

TEST(HardwareFeatures, StandForDevices) {
  EXPECT_STREQ(kWiredInterface, "eth0");
  EXPECT_STREQ(kWirelessInterface, "wlan0");
  EXPECT_STREQ(kModemInterface, "ppp0");
  EXPECT_STREQ(kSerialDevice0, "/dev/ttyS0");
  EXPECT_STREQ(kSerialDevice1, "/dev/ttyS1");
  EXPECT_STREQ(kSerialDevice2, "/dev/ttyS2");
  EXPECT_STREQ(kModemDevice, "/dev/modem");
  EXPECT_STREQ(kI2cBus, "/dev/i2c-0");
}
