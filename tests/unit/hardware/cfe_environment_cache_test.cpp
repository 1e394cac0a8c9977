// Tests of GetCfeEnvironment. A process reads the environment of its device only once, so each test runs in its own
// process.
#include <gtest/gtest.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "lib/hardware/cfe_environment.h"
#include "tests/unit/hardware/device_files.h"
#include "tests/unit/hardware/fake_mtd.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/forked_child.h"

namespace test_hardware {
namespace {

constexpr char kCorrupt[] = "BOOTLOADER ENVIRONMENT CORRUPT. PLEASE RUN MANUFACTURING TEST\n";
constexpr char kTable[] = "mtd0: 00000800 00000400 \"flash0\"\nmtd7: 00000800 00000400 \"flash0.nvram\"\n";
constexpr std::uint32_t kBlock = 1024;

std::string Block(const std::string& records) {
  return records + EndRecord() + std::string(kBlock - 1 - records.size(), '\xFF');
}

// Returns the environment that GetCfeEnvironment returns.
std::string Get() {
  std::string text;
  for (const auto& [name, value] : GetCfeEnvironment()) {
    text += name + "=" + value + ";";
  }
  return text;
}

class CfeEnvironmentCache : public testing::Test {
protected:
  CfeEnvironmentCache() {
    m_files.WriteMtdTable(kTable);
    m_files.WriteDevice("mtd7", Block(Record("A=first")) + Block(Record("A=second")));
  }

  // Returns the result of `body` in a process of its own.
  static std::string InNewProcess(const std::function<std::string(FakeMtd&)>& body) {
    return test_support::RunInChild([&body] {
      FakeMtd mtd(2 * kBlock, kBlock, 512, 16);
      return body(mtd);
    });
  }

  DeviceFiles m_files;
  test_support::CapturedStderr m_captured;
};

TEST_F(CfeEnvironmentCache, IsFilledByTheFirstCall) {
  EXPECT_EQ(InNewProcess([this](FakeMtd& mtd) {
              std::string answer = Get();
              m_files.WriteDevice("mtd7", Block(Record("A=changed")));
              answer += Get();
              return answer + mtd.TakeRequests();
            }),
            "A=first;A=first;MEMGETINFO, MEMGETBADBLOCK 0");
}

TEST_F(CfeEnvironmentCache, SkipsABadBlock) {
  EXPECT_EQ(InNewProcess([](FakeMtd& mtd) {
              mtd.bad_blocks = {0};
              return Get();
            }),
            "A=second;");
}

TEST_F(CfeEnvironmentCache, ReturnsCopies) {
  EXPECT_EQ(InNewProcess([](FakeMtd&) {
              GetCfeEnvironment()["A"] = "changed by its owner";
              return Get();
            }),
            "A=first;");
}

TEST_F(CfeEnvironmentCache, KeepsAFailureAndReportsItOnce) {
  const std::string good = Block(Record("A=1"));
  const struct {
    const char* name;
    std::string table;
    std::string contents;
    std::function<void(FakeMtd&)> prepare;
    std::string printed;
  } rows[] = {
      {"no partitions", "", "", [](FakeMtd&) {}, kCorrupt},
      {"another partition", "mtd7: 00000800 00000400 \"flash0\"\n", good, [](FakeMtd&) {}, kCorrupt},
      {"no device", "mtd8: 00000800 00000400 \"flash0.nvram\"\n", good, [](FakeMtd&) {}, kCorrupt},
      {"no NAND device", kTable, good, [](FakeMtd& mtd) { mtd.Fail(MEMGETINFO, ENOTTY); }, kCorrupt},
      {"device error", kTable, good, [](FakeMtd& mtd) { mtd.Fail(MEMGETBADBLOCK, EIO); }, kCorrupt},
      {"all blocks bad", kTable, good,
       [](FakeMtd& mtd) {
         mtd.bad_blocks = {0, kBlock};
       },
       kCorrupt},
      {"the only block of a partition that is smaller than the device is bad",
       "mtd7: 00000400 00000400 \"flash0.nvram\"\n", Block("") + good, [](FakeMtd& mtd) { mtd.bad_blocks = {0}; },
       kCorrupt},
      {"damaged records", kTable, Record("A=1") + "\xFF", [](FakeMtd&) {}, kCorrupt},
      {"an erased block is no failure", kTable, std::string(kBlock, '\xFF'), [](FakeMtd&) {}, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    m_files.WriteMtdTable(row.table);
    m_files.WriteDevice("mtd7", row.contents);
    EXPECT_EQ(InNewProcess([&](FakeMtd& mtd) {
                row.prepare(mtd);
                const std::string first = Get();
                // The device works from now on, but it is not read again.
                mtd.Fail(0, 0);
                mtd.bad_blocks.clear();
                m_files.WriteMtdTable(kTable);
                m_files.WriteDevice("mtd7", good);
                return first + "|" + Get();
              }),
              "|");
    EXPECT_EQ(m_captured.Take(), row.printed);
  }
}

TEST_F(CfeEnvironmentCache, IsFilledOnceByManyThreads) {
  EXPECT_EQ(InNewProcess([](FakeMtd& mtd) {
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
                  text = Get();
                });
              }
              for (std::thread& thread : threads) {
                thread.join();
              }
              const auto right = std::count(seen.begin(), seen.end(), "A=first;");
              return std::to_string(right) + " right, " + std::to_string(readers.size()) +
                     " reader: " + mtd.TakeRequests();
            }),
            "8 right, 1 reader: MEMGETINFO, MEMGETBADBLOCK 0");
}

}  // namespace
}  // namespace test_hardware
