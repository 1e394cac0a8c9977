// No verb takes more than its share of time for a registry that is far larger than any daemon's.
#include <ctime>

#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/temp_dir.h"

namespace test_client {
namespace {

constexpr std::size_t kFew = 1000;
constexpr std::size_t kMany = 10000;

double CpuSeconds() {
  timespec now{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::string Document(std::size_t keys, const char* value) {
  std::string json = "{";
  for (std::size_t section = 0; section < 2; ++section) {
    json += section == 0 ? "\"s\":{" : ",\"t\":{";
    for (std::size_t key = 0; key < keys / 2; ++key) {
      json += (key == 0 ? "\"key" : ",\"key") + std::to_string(key) + "\":\"" + value + "\"";
    }
    json += "}";
  }
  return json + "}";
}

class Growth : public ClientTest {
protected:
  Growth() : ClientTest("", 100 * 1024 * 1024) {}

  /// The fastest of some runs on that many keys, in processor time: what others do at the same time does not count.
  double TimeOf(const std::vector<std::string>& arguments, std::size_t keys, int runs, int status) {
    double best = 1e9;
    for (int run = 0; run < runs; ++run) {
      back_end->DeleteAll();
      back_end->WriteJson(Document(keys, "old"));
      const double start = CpuSeconds();
      const Outcome outcome = Run(arguments);
      best = std::min(best, CpuSeconds() - start);
      EXPECT_EQ(outcome.status, status) << outcome.error;
    }
    return best;
  }

  test_support::TempDir directory;
};

TEST_F(Growth, IsNotQuadratic) {
  const std::string other = directory / "other.json";
  ::setenv("EDITOR", "sed -i s/old/edited/", 1);
  ::setenv("TMPDIR", directory.Path().c_str(), 1);
  struct Row {
    std::vector<std::string> arguments;
    int status;
  };
  const Row rows[] = {
      {{"list", "s"}, 0},
      {{"show"}, 0},
      {{"show", "s", "--json"}, 0},
      {{"usage", "--json"}, 0},
      {{"dump"}, 0},
      {{"load", other}, 0},
      {{"load", "--replace", other}, 0},
      {{"load", "--missing-only", other}, 0},
      {{"diff", other}, 1},
      {{"edit"}, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.arguments.front());
    test_support::WriteTextFile(other, Document(kFew, "new"));
    const double few = TimeOf(row.arguments, kFew, 3, row.status);
    test_support::WriteTextFile(other, Document(kMany, "new"));
    const double many = TimeOf(row.arguments, kMany, 1, row.status);
    // Ten times the keys; a hundred times would be quadratic.
    EXPECT_LT(many, 35 * few + 0.005);
  }
  ::unsetenv("TMPDIR");
}

}  // namespace
}  // namespace test_client
