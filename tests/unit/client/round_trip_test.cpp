// What is dumped can be loaded again, byte for byte.
#include <random>

#include "registry/json_printer.h"
#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/temp_dir.h"

namespace test_client {
namespace {

constexpr std::uint32_t kSeed = 20240811;
constexpr int kRounds = 1000;

// Any registry that callers can make: with empty sections, names and values, all of ASCII in names, and NUL in values.
class RandomRegistry {
public:
  explicit RandomRegistry(std::uint32_t seed) : m_random(seed) {}

  RegistrySections Make() {
    RegistrySections sections;
    for (std::size_t s = m_random() % 6; s > 0; --s) {
      RegistrySection& keys = sections[Name()];
      for (std::size_t k = m_random() % 6; k > 0; --k) {
        keys[Name()] = Value();
      }
    }
    return sections;
  }

private:
  std::string Name() {
    std::string name;
    for (std::size_t i = m_random() % 5; i > 0; --i) {
      const auto c = static_cast<char>(m_random() % 128);
      name += c >= 'A' && c <= 'Z' ? 'a' : c;
    }
    return name;
  }

  std::string Value() {
    std::string value;
    for (std::size_t i = m_random() % 40; i > 0; --i) {
      switch (m_random() % 5) {
        case 0:
          value += "\xc3\xb6";
          break;
        case 1:
          value += "\xf0\x9f\x98\x80";
          break;
        default:
          value += static_cast<char>(m_random() % 128);
      }
    }
    return value;
  }

  std::mt19937 m_random;
};

TEST(RoundTrip, GivesTheSameFileByteForByte) {
  const test_support::TempDir directory;
  const std::string dump = directory / "dump.json";
  RandomRegistry random(kSeed);
  BackEnd back_end;
  RegistryBackEnd& daemon = *back_end.registry;
  const auto run = [&](const std::vector<std::string>& arguments) {
    const Outcome outcome = RunOn(daemon, arguments);
    EXPECT_EQ(outcome, Prints(outcome.output));
    return outcome.output;
  };
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round) + " of seed " + std::to_string(kSeed));
    const RegistrySections sections = random.Make();
    daemon.DeleteAll();
    for (const auto& [section, keys] : sections) {
      daemon.Write(section, "passing", "");
      for (const auto& [key, value] : keys) {
        daemon.Write(section, key, value);
      }
      if (keys.count("passing") == 0) {
        daemon.DeleteKey(section, "passing");
      }
    }
    const std::string before = back_end.FlushedText();
    ASSERT_EQ(before, SerialiseRegistry(sections));

    const std::string dumped = run({"-q", "dump"});
    run({"-q", "clear", "--yes"});
    {
      const StandardInput input(dumped);
      run({"-q", "load", "--force"});
    }
    ASSERT_EQ(back_end.store->Text(), before);

    // The same document in the place of another registry.
    daemon.WriteJson(PrintJson(random.Make()));
    test_support::WriteTextFile(dump, dumped);
    run({"-q", "load", "--force", "--replace", dump});
    ASSERT_EQ(back_end.store->Text(), before);
    run({"-q", "diff", dump});
  }
}

// A hand has written into the file what JSON cannot carry.
TEST(RoundTrip, SaysWhatCannotBeDumped) {
  BackEnd daemon("[s]\nk=\xff\n");
  EXPECT_EQ(RunOn(*daemon.registry, {"dump"}),
            (Outcome{10, "", "ledgerctl: No JSON: value of key 'k' in section 's' is not UTF-8\n"}));
}

}  // namespace
}  // namespace test_client
