// Each form of the registry is read back byte for byte.
#include <random>

#include "client/registry_merge.h"
#include "client/text_form.h"
#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/temp_dir.h"

namespace test_client {
namespace {

constexpr std::uint32_t kSeed = 20240811;
constexpr int kRounds = 1000;

// Makes registries as callers can make them: with empty sections, names and values, with all ASCII characters that a
// name can have, and with NUL.
class RandomRegistry {
public:
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
  // Half of the names are so short that two registries have them in common.
  std::string Name() {
    if (m_random() % 2 == 0) {
      return std::string(1, "abc1"[m_random() % 4]);
    }
    std::string name;
    for (std::size_t i = m_random() % 5; i > 0; --i) {
      const char c = Ascii();
      name += c >= 'A' && c <= 'Z' ? 'a' : c;
    }
    return name;
  }

  std::string Value() {
    std::string value;
    for (std::size_t i = m_random() % 40; i > 0; --i) {
      const std::size_t kind = m_random() % 5;
      value += kind == 0 ? "\xc3\xb6" : kind == 1 ? "\xf0\x9f\x98\x80" : std::string(1, Ascii());
    }
    return value;
  }

  // Half of the characters have a meaning in the text form.
  char Ascii() {
    constexpr char kSpecial[] = "a b'\"\\$#=[]\n\r\t\0\x1b`~%{}\x7f";
    return m_random() % 2 == 0 ? kSpecial[m_random() % (sizeof kSpecial - 1)] : static_cast<char>(m_random() % 128);
  }

  std::mt19937 m_random{kSeed};
};

class RoundTrip : public ClientTest {
protected:
  void Fill(const RegistrySections& sections) {
    back_end->DeleteAll();
    back_end->WriteJson(ledgerctl::PrintMerge(ledgerctl::MergeOf(sections)));
    ASSERT_EQ(back_end.FlushedText(), SerialiseRegistry(sections));
  }

  // Returns the output of a command that succeeds and prints no message.
  std::string OutputOf(const Words& words, const std::string& input = "") {
    const Outcome outcome = Run(words, input);
    EXPECT_EQ(outcome, Prints(std::get<1>(outcome)));
    return std::get<1>(outcome);
  }

  // Another client changes something between the read of `load --replace` and its change.
  void ChangeBeforeWriteJson(const RegistrySections& sections, int round) {
    registry.OnCall([&sections, round, this](const std::string& call) {
      if (call == "WriteJson" && !sections.empty() && round % 3 != 0) {
        const auto& [section, keys] = *sections.begin();
        round % 3 == 1 || keys.empty() ? back_end->DeleteSection(section)
                                       : back_end->Write(section, keys.begin()->first, "changed");
      }
    });
  }

  test_support::TempDir directory;
};

TEST_F(RoundTrip, GivesTheSameRegistryByteForByte) {
  const std::string dump = directory / "dump.json";
  RandomRegistry random;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round) + " of seed " + std::to_string(kSeed));
    const RegistrySections sections = random.Make();
    Fill(sections);
    const std::string text = back_end.store->Text();
    ASSERT_EQ(ledgerctl::ParseText(OutputOf({"show"})), sections);
    ASSERT_EQ(OutputOf({"usage", "--json"}).find("{\"used\":" + std::to_string(text.size()) + ","), 0u);
    const std::string dumped = OutputOf({"-q", "dump"});
    OutputOf({"-q", "clear", "--yes"});
    OutputOf({"-q", "load", "--force"}, dumped);
    ASSERT_EQ(back_end.store->Text(), text);

    const RegistrySections others = random.Make();
    Fill(others);
    ChangeBeforeWriteJson(others, round);
    test_support::WriteTextFile(dump, dumped);
    OutputOf({"-q", "load", "--force", "--replace", dump});
    registry.OnCall({});
    ASSERT_EQ(back_end.store->Text(), text);
    OutputOf({"-q", "diff", dump});
  }
}

// JSON cannot carry what was written into the file by hand.
TEST(RoundTripOfAFile, FailsForAValueThatIsNotUtf8) {
  BackEnd daemon("[s]\nk=\xff\n");
  EXPECT_EQ(RunOn(*daemon.registry, {"dump"}), Fails(10, "No JSON: value of key 'k' in section 's' is not UTF-8"));
}

}  // namespace
}  // namespace test_client
