#include "lib/platform/tracepoint.h"

#include <fstream>
#include <iterator>

#include "tests/unit/platform/platform_test.h"

using namespace test_platform;

static_assert(noexcept(FireTracepoint("", 0)));
static_assert(noexcept(LoadTracepointProbes()));

TEST(Tracepoint, DoesNothingWithoutATracer) {
  EXPECT_IN_CHILD({
    const auto count_threads = [] {
      const std::filesystem::directory_iterator tasks("/proc/self/task");
      return std::distance(begin(tasks), end(tasks));
    };
    const auto threads = count_threads();
    const int descriptors = CountDescriptors();
    FireTracepoint("ASRT", 1);
    FireTracepoint("", -1);
    // The part of LTTng that has threads, and our probes.
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
      EXPECT_EQ(line.find("/liblttng-ust.so"), std::string::npos);
      EXPECT_EQ(line.find("tracepoint-probes"), std::string::npos);
    }
    maps.close();
    EXPECT_EQ(count_threads(), threads);
    EXPECT_EQ(CountDescriptors(), descriptors);
  });
}
