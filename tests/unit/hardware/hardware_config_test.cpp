#include "lib/hardware/hardware_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <boost/thread/exceptions.hpp>
#include <cerrno>
#include <cstdint>
#include <string>
#include <type_traits>

#include "tests/unit/hardware/device_files.h"
#include "tests/unit/hardware/fake_mtd.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/forked_child.h"

// The error of the next pthread_mutex_init, 0 if it is not replaced.
static int g_mutex_error = 0;

// The linker replaces calls of F by calls of __wrap_F. __real_F is the original function.
extern "C" {

int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
  return g_mutex_error != 0 ? std::exchange(g_mutex_error, 0) : __real_pthread_mutex_init(mutex, attributes);
}

}  // extern "C"

namespace test_hardware {
namespace {

using test_support::CapturedStderr;

// The tests of Singleton show that a second object and a missing one are assertion failures.
static_assert(std::is_base_of_v<bramble::Singleton<HardwareConfig>, HardwareConfig>);
static_assert(alignof(HardwareConfig) >= 8);

constexpr char kMissing[] = "/nonexistent/boardid";
constexpr char kCorrupt[] = "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n";
constexpr char kNotValid[] = "SRB not valid. Please run manufacturing test.\n";
constexpr char kZero[] = "Hardware configuration bitfield is zero. Please reprogram SRB\n";
constexpr std::uint64_t kAll = 0xFFFFFFFFFFFFFFFF;

CfeEnvironment GoodEnvironment() {
  return {{"PW_FORMAT", "1"}, {"PW_HWFLAGS", "0x31"}, {"PW_OEM_ID", "acme"}, {"PW_OEM_MODEL", "5R1"}};
}

// Returns all members of a description as one text.
std::string Describe(const HardwareConfig& config) {
  return "revision " + std::to_string(config.GetRevision()) + ", board " + std::to_string(config.GetBoardId()) +
         ", flags " + std::to_string(config.GetHardwareFlags()) + ", family '" + config.GetFamily() + "', OEM '" +
         config.GetOemId() + "', model '" + config.GetOemModel() + "', bootloader '" + config.GetBootloaderVersion() +
         "', keys " + std::to_string(config.HasSecureKeys()) + ", boot " + std::to_string(config.HasSecureBoot()) +
         ", secure ID '" + config.GetSecureId() + "'";
}

constexpr char kNothing[] =
    "revision -1, board -1, flags 0, family '', OEM '', model '', bootloader '', keys 0, boot 0, secure ID ''";

TEST(HardwareConfig, ReadsAllItsSources) {
  const test_support::TempDir dir;
  const std::string path = dir / "boardid";
  test_support::WriteTextFile(path,
                              "Revision: C\nFamily: tiger\nID: 18\nBOLT-version: v2\nSecure-keys: 1\nSecure-ID: 17\n");
  CapturedStderr captured;
  EXPECT_EQ(Describe(HardwareConfig(path.c_str(), GoodEnvironment)),
            "revision 3, board 18, flags 49, family 'tiger', OEM 'acme', model '5R1', bootloader 'v2', keys 1, boot 0, "
            "secure ID '17'");
  EXPECT_EQ(captured.Take(), "");
  EXPECT_EQ(Describe(HardwareConfig(path.c_str(), [] { return CfeEnvironment(); })),
            "revision 3, board 18, flags 0, family 'tiger', OEM '', model '', bootloader 'v2', keys 1, boot 0, secure "
            "ID '17'");
  EXPECT_EQ(captured.Take(), kNotValid);
  test_support::WriteTextFile(path, "Secure-boot: 1\n");
  EXPECT_TRUE(HardwareConfig(path.c_str(), GoodEnvironment).HasSecureBoot());
}

TEST(HardwareConfig, HasTheFlagsOfAValidEnvironment) {
  const struct {
    const char* name;
    CfeEnvironment environment;
    std::uint64_t flags;
    std::string printed;
  } rows[] = {
      {"no flags variable", {}, kAll, ""},
      {"other variables", {{"pw_hwflags", "0"}, {"PW_HWFLAG", "0"}, {"OTHER", "0"}}, kAll, ""},
      {"empty", {{"PW_HWFLAGS", ""}}, 0, kZero},
      {"zero", {{"PW_HWFLAGS", "0"}}, 0, kZero},
      {"junk", {{"PW_HWFLAGS", "junk"}}, 0, kZero},
      {"hexadecimal", {{"PW_HWFLAGS", "0x31"}}, 0x31, ""},
      {"octal", {{"PW_HWFLAGS", "061"}}, 0x31, ""},
      {"trailing junk", {{"PW_HWFLAGS", "49zzz"}}, 0x31, ""},
      {"maximum", {{"PW_HWFLAGS", "18446744073709551615"}}, kAll, ""},
      {"model with the connector", {{"PW_HWFLAGS", "0x31"}, {"PW_OEM_MODEL", "5R377"}}, 0x131, ""},
      {"model with the connector that is already set", {{"PW_HWFLAGS", "0x100"}, {"PW_OEM_MODEL", "5R377"}}, 0x100, ""},
      {"model with the connector and no other flag", {{"PW_HWFLAGS", "0"}, {"PW_OEM_MODEL", "5R377"}}, 0x100, kZero},
      {"model with the connector, no flags variable", {{"PW_OEM_MODEL", "5R377"}}, kAll, ""},
  };
  CapturedStderr captured;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    CfeEnvironment environment = row.environment;
    environment["PW_FORMAT"] = "1";
    EXPECT_EQ(HardwareConfig(kMissing, [&] { return environment; }).GetHardwareFlags(), row.flags);
    EXPECT_EQ(captured.Take(), row.printed);
  }
  for (const char* model : {"5R378", "5r377", "5R3777", "5R37", " 5R377", "5R377 ", ""}) {
    SCOPED_TRACE(model);
    CfeEnvironment environment = GoodEnvironment();
    environment["PW_OEM_MODEL"] = model;
    const HardwareConfig config(kMissing, [&] { return environment; });
    EXPECT_EQ(config.GetHardwareFlags(), 0x31U);
    EXPECT_EQ(config.GetOemModel(), model);
  }
}

TEST(HardwareConfig, IgnoresAnEnvironmentOfAnotherFormat) {
  CapturedStderr captured;
  for (const char* format : {"", "0", "01", "1 ", " 1", "2", "11", "1\n", "0x1"}) {
    SCOPED_TRACE(format);
    CfeEnvironment environment{{"PW_FORMAT", format}, {"PW_OEM_ID", "acme"}, {"PW_OEM_MODEL", "5R377"}};
    EXPECT_EQ(Describe(HardwareConfig(kMissing, [&] { return environment; })), kNothing);
    EXPECT_EQ(captured.Take(), kNotValid);
  }
  const CfeEnvironment other_names{{"pw_format", "1"}, {"PW_FORMAT ", "1"}, {"PW_FORMAT2", "1"}, {"PW_OEM_ID", "acme"}};
  EXPECT_EQ(Describe(HardwareConfig(kMissing, [&] { return other_names; })), kNothing);
  EXPECT_EQ(captured.Take(), kNotValid);
}

TEST(HardwareConfig, HasTheFeaturesOfItsFlags) {
  for (unsigned bit = 0; bit < 64; ++bit) {
    SCOPED_TRACE(bit);
    const HardwareConfig config(kMissing, [bit] {
      return CfeEnvironment{{"PW_FORMAT", "1"}, {"PW_HWFLAGS", std::to_string(std::uint64_t{1} << bit)}};
    });
    // Features after the 64 flags do not exist.
    for (unsigned other = 0; other < 130; ++other) {
      EXPECT_EQ(config.HasFeature(static_cast<HardwareFeature>(other)), other == bit) << other;
    }
  }
}

TEST(HardwareConfig, ReturnsTheRegistryPath) {
  EXPECT_EQ(HardwareConfig(kMissing, GoodEnvironment).GetRegistryPath(), "/var/lib/plinthware/registry");
}

TEST(HardwareConfig, IsRegisteredBeforeItReadsTheEnvironmentOnce) {
  std::vector<const HardwareConfig*> instances;
  const HardwareConfig config(kMissing, [&instances] {
    instances.push_back(&HardwareConfig::GetInstance());
    return GoodEnvironment();
  });
  EXPECT_THAT(instances, testing::ElementsAre(&config));
}

TEST(HardwareConfig, IsNotRegisteredWhenItsConstructorThrows) {
  EXPECT_THROW(HardwareConfig(kMissing, []() -> CfeEnvironment { throw std::bad_alloc(); }), std::bad_alloc);
  try {
    g_mutex_error = EAGAIN;
    const HardwareConfig config(kMissing, GoodEnvironment);
    ADD_FAILURE() << "nothing thrown";
  } catch (const boost::thread_resource_error& e) {
    EXPECT_THAT(e.what(), testing::StartsWith("boost:: mutex constructor failed in pthread_mutex_init"));
    EXPECT_EQ(e.native_error(), EAGAIN);
  }
  // Creating an instance aborts if there already is one.
  const HardwareConfig config(kMissing, GoodEnvironment);
  EXPECT_EQ(&HardwareConfig::GetInstance(), &config);
}

TEST(HardwareConfigOfThisDevice, ReadsTheFlashOnceWhenBothSourcesAreMissing) {
  const DeviceFiles files;
  CapturedStderr captured;
  EXPECT_EQ(test_support::RunInChild([] {
              const std::string first = Describe(HardwareConfig());
              return first + "\n" + Describe(HardwareConfig());
            }),
            std::string(kNothing) + "\n" + kNothing);
  EXPECT_EQ(captured.Take(), std::string(kCorrupt) + kNotValid + kNotValid);
}

TEST(HardwareConfigOfThisDevice, IsReadFromTheKernelAndTheFlash) {
  DeviceFiles files;
  files.WriteBoardIdentity("Revision: B\nFamily: panther\n");
  files.WriteMtdTable("mtd1: 00000400 00000400 \"flash0.nvram\"\n");
  files.WriteDevice("mtd1", Record("PW_FORMAT=1") + Record("PW_HWFLAGS=0x31") + std::string(1024, '\0'));
  const CapturedStderr silent;
  EXPECT_EQ(test_support::RunInChild([] {
              const FakeMtd mtd(1024, 1024, 512, 16);
              return Describe(HardwareConfig());
            }),
            "revision 2, board -1, flags 49, family 'panther', OEM '', model '', bootloader '', keys 0, boot 0, "
            "secure ID ''");
}

}  // namespace
}  // namespace test_hardware
