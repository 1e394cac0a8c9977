// Tests of GetCfeEnvironment. A process reads the environment of its device only once, so each test runs in its own
// process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "lib/hardware/cfe_environment.h"
#include "tests/unit/hardware/cfe_block.h"
#include "tests/unit/hardware/device_mounts.h"
#include "tests/unit/hardware/fake_mtd.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/forked_child.h"

using test_hardware::DeviceMounts;
using test_hardware::EndRecord;
using test_hardware::FakeMtd;
using test_hardware::Record;
using test_support::CapturedStderr;
using test_support::RunInChild;

namespace {

constexpr char kCorrupt[] = "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n";
constexpr std::uint32_t kBlock = 1024;
constexpr FakeMtd::Geometry kGeometry{2 * kBlock, kBlock, 512, 16};

std::string Block(const std::string& records) {
  return records + EndRecord() + std::string(kBlock - 1 - records.size(), '\xFF');
}

std::string Show(const CfeEnvironment& environment) {
  std::string text;
  for (const auto& [name, value] : environment) {
    text += name + "=" + value + ";";
  }
  return text;
}

class CfeEnvironmentCache : public testing::Test {
protected:
  CfeEnvironmentCache() {
    m_mounts.WriteMtdTable("mtd0: 00000800 00000400 \"flash0\"\nmtd7: 00000800 00000400 \"flash0.nvram\"\n");
    m_mounts.WriteDevice("mtd7", Block(Record("A=first")) + Block(Record("A=second")));
  }

  DeviceMounts m_mounts;
  CapturedStderr m_captured;
};

}  // namespace

TEST_F(CfeEnvironmentCache, IsFilledByTheFirstCall) {
  EXPECT_EQ(RunInChild([this] {
              FakeMtd mtd(kGeometry);
              std::string answer = Show(GetCfeEnvironment());
              m_mounts.WriteDevice("mtd7", Block(Record("A=changed")));
              answer += Show(GetCfeEnvironment());
              for (const std::string& request : mtd.TakeRequests()) {
                answer += request + ";";
              }
              return answer;
            }),
            "A=first;A=first;MEMGETINFO;MEMGETBADBLOCK 0;");
}

TEST_F(CfeEnvironmentCache, SkipsABadBlock) {
  EXPECT_EQ(RunInChild([] {
              FakeMtd mtd(kGeometry);
              mtd.bad_blocks = {0};
              return Show(GetCfeEnvironment());
            }),
            "A=second;");
}

TEST_F(CfeEnvironmentCache, ReadsThePartitionSizeFromTheTable) {
  m_mounts.WriteMtdTable("mtd7: 00000400 00000400 \"flash0.nvram\"\n");
  EXPECT_EQ(RunInChild([] {
              FakeMtd mtd(kGeometry);
              mtd.bad_blocks = {0};
              return Show(GetCfeEnvironment());
            }),
            "");
  EXPECT_EQ(m_captured.Take(), kCorrupt);
}

TEST_F(CfeEnvironmentCache, ReturnsCopies) {
  EXPECT_EQ(RunInChild([] {
              const FakeMtd mtd(kGeometry);
              GetCfeEnvironment()["A"] = "changed by its owner";
              CfeEnvironment copy = GetCfeEnvironment();
              copy.clear();
              return Show(GetCfeEnvironment());
            }),
            "A=first;");
}

TEST_F(CfeEnvironmentCache, KeepsAFailureAndReportsItOnce) {
  const struct {
    const char* name;
    std::string table;
    std::string contents;
    void (*prepare)(FakeMtd&);
  } rows[] = {
      {"no partitions", "", "", [](FakeMtd&) {}},
      {"another partition", "mtd7: 00000800 00000400 \"flash0\"\n", Block(Record("A=1")), [](FakeMtd&) {}},
      {"no device", "mtd8: 00000800 00000400 \"flash0.nvram\"\n", Block(Record("A=1")), [](FakeMtd&) {}},
      {"no NAND device", "mtd7: 00000800 00000400 \"flash0.nvram\"\n", Block(Record("A=1")),
       [](FakeMtd& mtd) { mtd.Fail(MEMGETINFO, ENOTTY); }},
      {"all blocks bad", "mtd7: 00000800 00000400 \"flash0.nvram\"\n", Block(Record("A=1")),
       [](FakeMtd& mtd) {
         mtd.bad_blocks = {0, kBlock};
       }},
      {"device error", "mtd7: 00000800 00000400 \"flash0.nvram\"\n", Block(Record("A=1")),
       [](FakeMtd& mtd) { mtd.Fail(MEMGETBADBLOCK, EIO); }},
      {"damaged records", "mtd7: 00000800 00000400 \"flash0.nvram\"\n", Record("A=1") + "\xFF", [](FakeMtd&) {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    m_mounts.WriteMtdTable(row.table);
    m_mounts.WriteDevice("mtd7", row.contents);
    EXPECT_EQ(RunInChild([&] {
                FakeMtd mtd(kGeometry);
                row.prepare(mtd);
                std::string answer = Show(GetCfeEnvironment()) + "|";
                // The device works from now on, but it is not read again.
                mtd.Fail(0, 0);
                mtd.bad_blocks.clear();
                m_mounts.WriteMtdTable("mtd7: 00000800 00000400 \"flash0.nvram\"\n");
                m_mounts.WriteDevice("mtd7", Block(Record("A=1")));
                answer += Show(GetCfeEnvironment());
                return answer;
              }),
              "|");
    EXPECT_EQ(m_captured.Take(), kCorrupt);
  }
}

TEST_F(CfeEnvironmentCache, KeepsAnErasedEnvironmentWithoutAMessage) {
  m_mounts.WriteDevice("mtd7", std::string(kBlock, '\xFF'));
  EXPECT_EQ(RunInChild([this] {
              const FakeMtd mtd(kGeometry);
              std::string answer = Show(GetCfeEnvironment()) + "|";
              m_mounts.WriteDevice("mtd7", Block(Record("A=1")));
              return answer + Show(GetCfeEnvironment());
            }),
            "|");
}

TEST_F(CfeEnvironmentCache, IsFilledOnceByManyThreads) {
  EXPECT_EQ(RunInChild([] {
              FakeMtd mtd(kGeometry);
              // Each request waits until all threads ask, or a second one reads.
              constexpr unsigned kThreads = 8;
              std::atomic<unsigned> asking{0};
              std::mutex lock;
              std::set<std::thread::id> readers;
              mtd.on_request = [&] {
                test_platform::WaitUntil([&] {
                  const std::lock_guard<std::mutex> held(lock);
                  readers.insert(std::this_thread::get_id());
                  return asking == kThreads || readers.size() > 1;
                });
              };
              std::vector<std::string> seen(kThreads);
              std::vector<std::thread> threads;
              for (std::string& text : seen) {
                threads.emplace_back([&] {
                  ++asking;
                  text = Show(GetCfeEnvironment());
                });
              }
              for (std::thread& thread : threads) {
                thread.join();
              }
              const auto right = std::count(seen.begin(), seen.end(), "A=first;");
              return std::to_string(right) + " right, " + std::to_string(mtd.TakeRequests().size()) + " requests, " +
                     std::to_string(readers.size()) + " reader";
            }),
            "8 right, 2 requests, 1 reader");
}
