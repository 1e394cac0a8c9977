// Tests of the manufacturing variables: important cases by name, then all combinations.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

#include "lib/hardware/hardware_config.h"
#include "tests/unit/hardware/cfe_block.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/fake_nand.h"
#include "tests/unit/support/temp_dir.h"

using test_hardware::Records;
using test_support::CapturedStderr;
using test_support::FakeNand;
using test_support::TempDir;
using test_support::WriteTextFile;

namespace {

constexpr char kMissing[] = "/nonexistent/boardid";
constexpr char kCorrupt[] = "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n";
constexpr char kNotValid[] = "SRB not valid. Please run manufacturing test.\n";
constexpr char kZero[] = "Hardware configuration bitfield is zero. Please reprogram SRB\n";
constexpr std::uint64_t kAll = 0xFFFFFFFFFFFFFFFF;

std::uint64_t Flags(const CfeEnvironment& environment) {
  return HardwareConfig(kMissing, [&environment] { return environment; }).GetHardwareFlags();
}

// The value of a variable, or nothing if it is absent.
using Value = std::optional<std::string>;

// A value of PW_HWFLAGS and the flags that it sets.
struct FlagsRow {
  Value value;
  std::uint64_t flags;
};

enum class Flash { Good, Damaged, Erased };

struct Combination {
  bool board_file;
  Flash flash;
  Value format;
  FlagsRow flags;
  Value model;

  std::string Name() const {
    const auto show = [](const Value& value) { return value ? "\"" + *value + "\"" : "absent"; };
    return std::string(board_file ? "board file, " : "no board file, ") +
           (flash == Flash::Good      ? "good"
            : flash == Flash::Damaged ? "damaged"
                                      : "erased") +
           " flash, format " + show(format) + ", flags " + show(flags.value) + ", model " + show(model);
  }

  CfeEnvironment Variables() const {
    CfeEnvironment variables{{"OTHER", "1"}, {"PW_OEM_ID", "acme"}};
    const auto set = [&variables](const char* name, const Value& value) {
      if (value) {
        variables[name] = *value;
      }
    };
    set("PW_FORMAT", format);
    set("PW_HWFLAGS", flags.value);
    set("PW_OEM_MODEL", model);
    return variables;
  }
};

struct Expectation {
  std::string printed;
  std::uint64_t flags = 0;
  std::string oem_id;
  std::string oem_model;
};

Expectation Expect(const Combination& combination) {
  Expectation expected;
  if (combination.flash == Flash::Damaged) {
    expected.printed = kCorrupt;
  }
  if (combination.flash != Flash::Good || combination.format != Value("1")) {
    expected.printed += kNotValid;
    return expected;
  }
  expected.oem_id = "acme";
  expected.oem_model = combination.model.value_or("");
  expected.flags = combination.flags.flags;
  if (expected.flags == 0) {
    expected.printed += kZero;
  }
  if (expected.oem_model == "5R377") {
    expected.flags |= 0x100;
  }
  return expected;
}

void Check(const Combination& combination, const std::string& board_file, CapturedStderr& captured) {
  SCOPED_TRACE(combination.Name());
  FakeNand nand(256, 512);
  if (combination.flash != Flash::Erased) {
    const std::string records = Records(combination.Variables()) + (combination.flash == Flash::Damaged ? "\x02" : "");
    nand.Write(0, records.data(), records.size());
    if (combination.flash == Flash::Good) {
      nand.Write(static_cast<std::uint32_t>(records.size()), "", 1);
    }
  }

  const HardwareConfig config(combination.board_file ? board_file.c_str() : kMissing, [&nand] {
    return ReadCfeEnvironmentOrEmpty([&nand] { return ReadCfeEnvironment(nand); });
  });

  const Expectation expected = Expect(combination);
  EXPECT_EQ(captured.Take(), expected.printed);
  EXPECT_EQ(config.GetHardwareFlags(), expected.flags);
  EXPECT_EQ(config.GetOemId(), expected.oem_id);
  EXPECT_EQ(config.GetOemModel(), expected.oem_model);
  EXPECT_EQ(config.HasFeature(HardwareFeature::GpioConnector), (expected.flags & 0x100) != 0);
  EXPECT_EQ(config.GetRevision(), combination.board_file ? 3 : -1);
  EXPECT_EQ(config.GetFamily(), combination.board_file ? "tiger" : "");
}

}  // namespace

TEST(HardwareConfigEnvironment, HasAllFlagsWithoutTheFlagsVariable) {
  const CapturedStderr silent;
  EXPECT_EQ(Flags({{"PW_FORMAT", "1"}}), kAll);
}

TEST(HardwareConfigEnvironment, HasNoFlagsWhenTheFlagsVariableIsEmpty) {
  CapturedStderr captured;
  EXPECT_EQ(Flags({{"PW_FORMAT", "1"}, {"PW_HWFLAGS", ""}}), 0U);
  EXPECT_EQ(captured.Take(), kZero);
}

TEST(HardwareConfigEnvironment, AddsTheConnectorOfOneModelEvenWhenTheFlagsAreZero) {
  CapturedStderr captured;
  EXPECT_EQ(Flags({{"PW_FORMAT", "1"}, {"PW_HWFLAGS", "0"}, {"PW_OEM_MODEL", "5R377"}}), 0x100U);
  EXPECT_EQ(captured.Take(), kZero);
}

TEST(HardwareConfigEnvironment, MatchesTheModelWithTheConnectorExactly) {
  const CapturedStderr silent;
  for (const char* model : {"5R378", "5r377", "5R3777", "5R37", " 5R377", "5R377 ", ""}) {
    SCOPED_TRACE(model);
    EXPECT_EQ(Flags({{"PW_FORMAT", "1"}, {"PW_HWFLAGS", "1"}, {"PW_OEM_MODEL", model}}), 1U);
  }
}

TEST(HardwareConfigEnvironment, IsNotValidInOtherFormats) {
  for (const char* format : {"", "0", "01", "1 ", " 1", "2", "11", "1\n", "0x1"}) {
    SCOPED_TRACE(format);
    CapturedStderr captured;
    EXPECT_EQ(Flags({{"PW_FORMAT", format}, {"PW_HWFLAGS", "1"}, {"PW_OEM_MODEL", "5R377"}}), 0U);
    EXPECT_EQ(captured.Take(), kNotValid);
  }
}

TEST(HardwareConfigEnvironment, MatchesVariableNamesExactly) {
  CapturedStderr captured;
  EXPECT_EQ(Flags({{"pw_format", "1"}, {"PW_FORMAT ", "1"}, {"PW_FORMAT2", "1"}}), 0U);
  EXPECT_EQ(captured.Take(), kNotValid);
  EXPECT_EQ(Flags({{"PW_FORMAT", "1"}, {"pw_hwflags", "0"}, {"PW_HWFLAG", "0"}}), kAll);
}

TEST(HardwareConfigEnvironment, IsReadCorrectlyInEveryCombination) {
  const TempDir dir;
  WriteTextFile(dir / "boardid", "Revision: C\nFamily: tiger\n");
  const Value formats[] = {std::nullopt, "", "1", "01", "1 ", "2"};
  const FlagsRow flags[] = {{std::nullopt, kAll}, {"", 0},     {"0", 0},      {"0x31", 0x31},
                            {"061", 0x31},        {"junk", 0}, {"49zzz", 49}, {"18446744073709551615", kAll}};
  const Value models[] = {std::nullopt, "5R377", "5R378"};
  CapturedStderr captured;
  for (const bool board_file : {false, true}) {
    for (const Flash flash : {Flash::Good, Flash::Damaged, Flash::Erased}) {
      for (const Value& format : formats) {
        for (const FlagsRow& row : flags) {
          for (const Value& model : models) {
            Check({board_file, flash, format, row, model}, dir / "boardid", captured);
          }
        }
      }
    }
  }
}
