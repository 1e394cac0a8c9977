// "watch", ended by a registry that goes away.
#include <chrono>

#include "client/failure.h"
#include "tests/client/client_fixture.h"

namespace test_client {
namespace {

class WatchVerb : public ClientTest {
protected:
  WatchVerb() : ClientTest("[a]\nk=1\nl=2\n") {}

  /// Watches while each of `changes` is made between two looks, then the daemon goes.
  Outcome Watch(std::vector<std::string> arguments, const std::vector<std::string>& changes) {
    std::size_t looks = 0;
    const MemoryFile output;
    const MemoryFile error;
    std::string seen;
    registry.OnCall([&](const std::string&) {
      seen = output.Text();
      if (looks > changes.size()) {
        throw ledgerctl::Failure(ledgerctl::ExitStatus::NotRunning, "gone");
      }
      if (looks > 0) {
        back_end->WriteJson(changes[looks - 1]);
      }
      ++looks;
    });
    arguments.insert(arguments.begin(), {"watch", "-i", interval});
    const int status = RunOn(registry, arguments, output.Fd(), error.Fd());
    EXPECT_EQ(seen, output.Text()) << "printed late";
    return {status, seen, error.Text()};
  }

  std::string interval = "0.001";
};

TEST_F(WatchVerb, PrintsWhatGoesAndComes) {
  EXPECT_EQ(Watch({}, {R"({"a":{"k":"x"}})", "{}", R"({"a":{"l":null},"b":{"m":"a b"}})", R"({"a":null})"}),
            (Outcome{6, "- [a] k=1\n+ [a] k=x\n- [a] l=2\n+ [b] m='a b'\n- [a] k=x\n", "ledgerctl: gone\n"}));
}

TEST_F(WatchVerb, LooksAtOneSection) {
  EXPECT_EQ(Watch({"A"}, {R"({"b":{"m":"1"}})", R"({"a":{"n":""}})"}), (Outcome{6, "+ [a] n=\n", "ledgerctl: gone\n"}));
}

TEST_F(WatchVerb, LooksAtOneKeyThatMayCome) {
  EXPECT_EQ(Watch({"b", "M"}, {R"({"b":{"n":"1"}})", R"({"b":{"m":"2"}})", R"({"b":null})"}),
            (Outcome{6, "+ [b] m=2\n- [b] m=2\n", "ledgerctl: gone\n"}));
}

TEST_F(WatchVerb, WaitsBetweenTwoLooks) {
  interval = "0.05";
  const auto start = std::chrono::steady_clock::now();
  Watch({}, {"{}"});
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

}  // namespace
}  // namespace test_client
