// The features that the bits of the hardware flags grant, and the names of their devices.
#pragma once

#include <string>

constexpr unsigned kHardwareFlagBits = 64;

/// The number of a bit in the hardware flags, 0 the least significant. The bits from NoDecode4K to DisablePacketCapture
/// are negative: a set bit removes or restricts something.
enum class HardwareFeature : unsigned {
  Hdmi = 0,
  ComponentVideo = 1,
  Vga = 2,
  TwoChannelAudio = 3,
  Ethernet = 4,
  Usb = 5,
  SerialPort0 = 6,
  SerialPort1 = 7,
  GpioConnector = 8,
  SvcButton = 9,
  ResetButton = 10,
  Rtc = 11,
  SettingsRom = 12,
  MicroSd = 13,
  Sdhc = 14,
  SixChannelAudio = 15,
  IrBlaster = 16,
  WiFi = 17,
  SerialPort2 = 18,
  AudioInput = 19,
  Cec = 20,
  Battery = 21,
  PortraitLcd = 22,
  HdmiInput = 23,
  DigitalTuner = 24,
  Spdif = 25,
  AudioInputLoopback = 26,
  MSata = 27,
  Ac3 = 28,
  Eac3 = 29,
  OnboardStorage = 32,
  NoDecode4K = 33,
  NoBluetooth = 34,
  NoPoE = 35,
  InternalStorageOnly = 36,
  DisablePacketCapture = 37,
};

/// Returns the display name of a bit. Returns "Unknown bit <n>" for a bit without a name, and "Unknown feature" for a
/// bit number of 64 or more.
std::string HardwareFeatureName(unsigned bit);

constexpr char kWiredInterface[] = "eth0";
constexpr char kWirelessInterface[] = "wlan0";
constexpr char kModemInterface[] = "ppp0";

constexpr char kSerialDevice0[] = "/dev/ttyS0";
constexpr char kSerialDevice1[] = "/dev/ttyS1";
constexpr char kSerialDevice2[] = "/dev/ttyS2";
constexpr char kModemDevice[] = "/dev/modem";

constexpr char kI2cBus[] = "/dev/i2c-0";
