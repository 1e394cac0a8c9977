// Runs each hot operation a fixed number of times on fixed data.
//
//   valgrind --tool=callgrind --collect-atstart=no ledgerd_count_instructions [--copy-more]
//
// With --copy-more each call also copies a text byte by byte: a slow-down that the comparison of the counts must
// report.
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "bench/instructions/count.h"
#include "bench/workload.h"

namespace {

constexpr int kWarmUpCalls = 4;

bool g_copy_more = false;

[[gnu::noinline]] std::string CopyOnceMore() {
  static const std::string text(workload::kCapacity, 'c');
  std::string copy;
  for (const char byte : text) {
    copy += byte;
  }
  return copy;
}

}  // namespace

void Count(const Counting& counting, const std::function<void(int)>& operation) {
  for (int call = 0; call < kWarmUpCalls; ++call) {
    operation(call);
  }
  CALLGRIND_TOGGLE_COLLECT;
  for (int call = 0; call < counting.calls; ++call) {
    operation(call);
    if (g_copy_more) {
      CopyOnceMore();
    }
  }
  CALLGRIND_TOGGLE_COLLECT;
  CALLGRIND_DUMP_STATS_AT(counting.name);
  std::printf("%s %d %s\n", counting.name, counting.calls, counting.root != nullptr ? counting.root : "");
}

int main(int argc, char** argv) {
  g_copy_more = argc > 1 && std::strcmp(argv[1], "--copy-more") == 0;
  CountInProcess();
  CountServed();
}
