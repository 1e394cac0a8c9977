// The time of each verb grows in proportion to the registry, also for registries far larger than the daemon's.
#include <ctime>

#include "registry/json_printer.h"
#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/temp_dir.h"

namespace test_client {
namespace {

class Growth : public ClientTest {
protected:
  Growth() : ClientTest("", 100 * 1024 * 1024) {}

  static std::string Document(std::size_t keys, const std::string& value) {
    RegistrySections sections;
    for (std::size_t key = 0; key < keys / 2; ++key) {
      sections["s"]["key" + std::to_string(key)] = value;
    }
    sections["t"] = sections["s"];
    return PrintJson(sections);
  }

  /// The shortest time of `runs` runs on that many keys. It is processor time: other programs do not count.
  std::clock_t TimeOf(const Words& words, std::size_t keys, int runs, int status) {
    std::clock_t best = std::numeric_limits<std::clock_t>::max();
    test_support::WriteTextFile(other, Document(keys, "new"));
    for (int run = 0; run < runs; ++run) {
      back_end->DeleteAll();
      back_end->WriteJson(Document(keys, "old"));
      const std::clock_t start = std::clock();
      const Outcome outcome = Run(words);
      best = std::min(best, std::clock() - start);
      EXPECT_EQ(std::get<0>(outcome), status) << std::get<2>(outcome);
    }
    return best;
  }

  test_support::TempDir directory;
  const std::string other = directory / "other.json";
};

TEST_F(Growth, IsNotQuadratic) {
  ::setenv("EDITOR", "sed -i s/old/edited/", 1);
  ::setenv("TMPDIR", directory.Path().c_str(), 1);
  struct Row {
    Words words;
    int status;
  };
  const Row rows[] = {{{"list", "s"}, 0},
                      {{"show"}, 0},
                      {{"show", "s", "--json"}, 0},
                      {{"usage", "--json"}, 0},
                      {{"dump"}, 0},
                      {{"load", other}, 0},
                      {{"load", "--replace", other}, 0},
                      {{"load", "--missing-only", other}, 0},
                      {{"diff", other}, 1},
                      {{"edit"}, 0}};
  for (const auto& [words, status] : rows) {
    SCOPED_TRACE(words.front());
    const std::clock_t few = TimeOf(words, 1000, 3, status);
    // Ten times the keys. A hundred times would be quadratic.
    EXPECT_LT(TimeOf(words, 10000, 1, status), 35 * few + CLOCKS_PER_SEC / 200);
  }
  ::unsetenv("TMPDIR");
}

}  // namespace
}  // namespace test_client
