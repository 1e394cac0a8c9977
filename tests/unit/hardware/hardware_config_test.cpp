#include "lib/hardware/hardware_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <boost/thread/exceptions.hpp>
#include <cerrno>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "tests/unit/hardware/cfe_block.h"
#include "tests/unit/hardware/device_mounts.h"
#include "tests/unit/hardware/failing_mutexes.h"
#include "tests/unit/hardware/fake_mtd.h"
#include "tests/unit/support/aborts.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/forked_child.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/throws.h"

using test_hardware::DeviceMounts;
using test_hardware::FakeMtd;
using test_support::CapturedStderr;
using test_support::RunInChild;
using test_support::TempDir;
using test_support::WriteTextFile;

static_assert(!std::is_copy_constructible_v<HardwareConfig>);
static_assert(!std::is_copy_assignable_v<HardwareConfig>);
static_assert(alignof(HardwareConfig) >= 8);

namespace {

constexpr char kMissing[] = "/nonexistent/boardid";
constexpr char kCorrupt[] = "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n";
constexpr char kNotValid[] = "SRB not valid. Please run manufacturing test.\n";

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

void ExpectNoInstance() {
  // Creating an instance aborts if there already is one.
  const HardwareConfig config(kMissing, GoodEnvironment);
  EXPECT_EQ(&HardwareConfig::GetInstance(), &config);
}

}  // namespace

TEST(HardwareConfig, ReadsAllItsSources) {
  const TempDir dir;
  WriteTextFile(dir / "boardid",
                "Revision: C\nFamily: tiger\nID: 18\nBOLT-version: v2\nSecure-keys: 1\nSecure-ID: 17\n");
  const CapturedStderr silent;
  EXPECT_EQ(Describe(HardwareConfig((dir / "boardid").c_str(), GoodEnvironment)),
            "revision 3, board 18, flags 49, family 'tiger', OEM 'acme', model '5R1', bootloader 'v2', keys 1, boot 0, "
            "secure ID '17'");
  WriteTextFile(dir / "boardid", "Secure-boot: 1\n");
  EXPECT_TRUE(HardwareConfig((dir / "boardid").c_str(), GoodEnvironment).HasSecureBoot());
}

TEST(HardwareConfig, ReadsTheEnvironmentOnce) {
  int calls = 0;
  const HardwareConfig config(kMissing, [&calls] {
    ++calls;
    return GoodEnvironment();
  });
  EXPECT_EQ(calls, 1);
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

TEST(HardwareConfig, IsTheInstanceWhileItExists) {
  for (int i = 0; i < 2; ++i) {
    HardwareConfig config(kMissing, GoodEnvironment);
    EXPECT_EQ(&HardwareConfig::GetInstance(), &config);
  }
}

TEST(HardwareConfig, IsRegisteredBeforeItsSourcesAreRead) {
  const HardwareConfig* instance = nullptr;
  const HardwareConfig config(kMissing, [&instance] {
    instance = &HardwareConfig::GetInstance();
    return GoodEnvironment();
  });
  EXPECT_EQ(instance, &config);
}

TEST(HardwareConfig, AbortsWhenASecondOneIsCreated) {
  const HardwareConfig config(kMissing, GoodEnvironment);
  EXPECT_ASSERTION(HardwareConfig(kMissing, GoodEnvironment), "sm_instance == __null", "lib/platform/singleton.h",
                   ".*Singleton\\(\\).*");
}

TEST(HardwareConfig, GetInstanceAbortsWithoutAnInstance) {
  EXPECT_ASSERTION(HardwareConfig::GetInstance(), "ValidatePointer(sm_instance, kAlignment)",
                   "lib/platform/singleton.h", ".*GetInstance\\(\\).*");
  { const HardwareConfig config(kMissing, GoodEnvironment); }
  EXPECT_ASSERTION(HardwareConfig::GetInstance(), "ValidatePointer(sm_instance, kAlignment)",
                   "lib/platform/singleton.h", ".*GetInstance\\(\\).*");
}

TEST(HardwareConfig, AbortsWhenAnObjectOtherThanTheInstanceIsDestroyed) {
  const HardwareConfig config(kMissing, GoodEnvironment);
  // This object is never constructed. Its destructor is safe because all its bytes are zero.
  alignas(HardwareConfig) std::array<unsigned char, sizeof(HardwareConfig)> other{};
  EXPECT_ASSERTION(reinterpret_cast<HardwareConfig*>(other.data())->~HardwareConfig(), "sm_instance == this",
                   "lib/platform/singleton.h", ".*~Singleton\\(\\).*");
}

TEST(HardwareConfig, IsNotRegisteredWhenReadingTheEnvironmentThrows) {
  const TempDir dir;
  WriteTextFile(dir / "boardid", "Family: " + std::string(64, 'f') + "\n");
  const std::string path = dir / "boardid";
  EXPECT_THROW(HardwareConfig(path.c_str(), []() -> CfeEnvironment { throw std::bad_alloc(); }), std::bad_alloc);
  ExpectNoInstance();
  test_platform::ExpectRuntimeError("no flash", [&] {
    HardwareConfig(path.c_str(), []() -> CfeEnvironment { throw std::runtime_error("no flash"); });
  });
  ExpectNoInstance();
}

TEST(HardwareConfig, IsNotRegisteredWhenItsMutexCannotBeInitialised) {
  try {
    const test_hardware::FailingMutexes failing(EAGAIN);
    const HardwareConfig config(kMissing, GoodEnvironment);
    ADD_FAILURE() << "nothing thrown";
  } catch (const boost::thread_resource_error& e) {
    EXPECT_THAT(e.what(), testing::StartsWith("boost:: mutex constructor failed in pthread_mutex_init"));
    EXPECT_EQ(e.native_error(), EAGAIN);
  }
  ExpectNoInstance();
}

TEST(HardwareConfigOfThisDevice, IsUnknownWhenBothSourcesAreMissing) {
  const DeviceMounts mounts;
  CapturedStderr captured;
  EXPECT_EQ(RunInChild([] { return Describe(HardwareConfig()); }), kNothing);
  EXPECT_EQ(captured.Take(), std::string(kCorrupt) + kNotValid);
}

TEST(HardwareConfigOfThisDevice, ReadsTheFlashOnceForSeveralInstances) {
  const DeviceMounts mounts;
  CapturedStderr captured;
  EXPECT_EQ(RunInChild([] {
              { const HardwareConfig first; }
              return Describe(HardwareConfig());
            }),
            kNothing);
  EXPECT_EQ(captured.Take(), std::string(kCorrupt) + kNotValid + kNotValid);
}

TEST(HardwareConfigOfThisDevice, IsReadFromTheKernelAndTheFlash) {
  DeviceMounts mounts;
  mounts.WriteBoardIdentity("Revision: B\nFamily: panther\n");
  mounts.WriteMtdTable("mtd1: 00000400 00000400 \"flash0.nvram\"\n");
  mounts.WriteDevice("mtd1", test_hardware::Records(GoodEnvironment()) + std::string(1024, '\0'));
  const CapturedStderr silent;
  EXPECT_EQ(RunInChild([] {
              const FakeMtd mtd({1024, 1024, 512, 16});
              return Describe(HardwareConfig());
            }),
            "revision 2, board -1, flags 49, family 'panther', OEM 'acme', model '5R1', bootloader '', keys 0, boot 0, "
            "secure ID ''");
}
