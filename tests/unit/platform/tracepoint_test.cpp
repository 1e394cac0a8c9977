#include "lib/platform/tracepoint.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/unit/support/child_process.h"

namespace {

long CountThreads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<long>(std::distance(begin(tasks), end(tasks)));
}

// Whether the part of LTTng that has threads, or a probe of ours, is in the process.
bool IsTracerLoaded() {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find("/liblttng-ust.so") != std::string::npos || line.find("tracepoint-probes") != std::string::npos) {
      return true;
    }
  }
  return false;
}

}  // namespace

TEST(Tracepoint, DoesNothingWithoutATracer) {
  EXPECT_IN_CHILD({
    const long threads = CountThreads();
    const int descriptors = test_platform::CountDescriptors();
    bramble::FireTracepoint("ASRT", 1);
    bramble::FireTracepoint("", -1);
    EXPECT_FALSE(IsTracerLoaded());
    EXPECT_EQ(CountThreads(), threads);
    EXPECT_EQ(test_platform::CountDescriptors(), descriptors);
  });
}

static_assert(noexcept(bramble::FireTracepoint("", 0)));
static_assert(noexcept(bramble::LoadTracepointProbes()));
