// The verb "watch". It runs until it is ended, so each test ends it with an error of the daemon.
#include <chrono>

#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/temp_dir.h"

namespace test_client {
namespace {

using ledgerctl::ExitStatus;
using ledgerctl::Failure;

// A test passes one of these instead of a change to make the read fail: the daemon does not run, or the bus denies
// access.
constexpr char kNotRunning[] = "not running";
constexpr char kDenied[] = "denied";

// Adds a key and deletes it. The section stays.
constexpr char kAddEmptyB[] = R"({"b":{"K":"","k":null}})";

class WatchVerb : public ClientTest {
protected:
  /// Watches from the registry "[a] k=1 l=2". Each of `changes` is made before a read, then an error ends the watch.
  Outcome Watch(Words words, const Words& changes) {
    back_end->DeleteAll();
    back_end->WriteJson(R"({"a":{"k":"1","l":"2"}})");
    std::size_t reads = 0;
    const MemoryFile output;
    const MemoryFile error;
    std::string seen;
    registry.OnCall([&](const std::string& name) {
      if (name == "SectionExists") {
        return;
      }
      seen = output.Text();
      if (reads > changes.size()) {
        throw Failure(ExitStatus::DaemonError, "over");
      }
      const std::string change = reads > 0 ? changes[reads - 1] : "{}";
      ++reads;
      if (change == kNotRunning || change == kDenied) {
        throw Failure(change == kDenied ? ExitStatus::Denied : ExitStatus::NotRunning, change);
      }
      back_end->WriteJson(change);
    });
    words.insert(words.begin(), {"watch", "-i", interval});
    const int status = RunOn(registry, words, output.Fd(), error.Fd());
    EXPECT_EQ(seen, output.Text()) << "printed late";
    return {status, seen, error.Text()};
  }

  /// Returns the outcome of a watch that the error of the daemon ends.
  static Outcome Ends(const std::string& output, const std::string& warnings = "") {
    return {9, output, warnings + "ledgerctl: over\n"};
  }

  std::string interval = "0.001";
  test_support::TempDir directory;
  const std::string log = directory / "log";
};

TEST_F(WatchVerb, PrintsOldAndNewValues) {
  EXPECT_EQ(Watch({}, {R"({"a":{"k":"x"}})", "{}", R"({"a":{"l":null},"b":{"m":"a b"}})", R"({"a":null})"}),
            Ends("- [a] k=1\n+ [a] k=x\n- [a] l=2\n+ [b] m='a b'\n- [a] k=x\n"));
  EXPECT_EQ(Watch({"--json"}, {R"({"a":{"k":"\"\n","l":null}})", R"({"b":{"m":""},"c":{"K":"","k":null}})",
                               R"({"b":null,"c":null})"}),
            Ends(R"({"section":"a","key":"k","before":"1","after":"\"\n"}
{"section":"a","key":"l","before":"2","after":null}
{"section":"b","key":"m","before":null,"after":""}
{"section":"c","key":null,"before":null,"after":{}}
{"section":"b","key":"m","before":"","after":null}
{"section":"c","key":null,"before":{},"after":null}
)"));
}

TEST_F(WatchVerb, ReadsOneSectionOrOneKey) {
  EXPECT_EQ(Watch({"A"}, {R"({"b":{"m":"1"}})", R"({"a":{"n":""}})"}), Ends("+ [a] n=\n"));
  EXPECT_EQ(Watch({"b"}, {kAddEmptyB, "{}", R"({"b":null})"}), Ends("+ [b]\n- [b]\n"));
  EXPECT_EQ(Watch({"b", "M"}, {R"({"b":{"n":"1"}})", R"({"b":{"m":"2"}})", R"({"b":null})"}),
            Ends("+ [b] m=2\n- [b] m=2\n"));
}

TEST_F(WatchVerb, WaitsForTheDaemonAndComparesWithTheStateBefore) {
  const std::string warning = "ledgerctl: warning: not running\nThe watch continues when the daemon runs again.\n";
  EXPECT_EQ(Watch({}, {"{}", kNotRunning, kNotRunning, R"({"a":{"k":"x"}})", kNotRunning, "{}"}),
            Ends("- [a] k=1\n+ [a] k=x\n", warning + warning));
  EXPECT_EQ(Watch({"-q"}, {kNotRunning}), Ends(""));
  // A bus that starts has its socket a moment before its users may connect to it.
  EXPECT_EQ(Watch({}, {kNotRunning, kDenied, kDenied, R"({"a":{"k":"x"}})"}), Ends("- [a] k=1\n+ [a] k=x\n", warning));
  EXPECT_EQ(Watch({}, {kNotRunning, "{}", kDenied}), Outcome(7, "", warning + "ledgerctl: denied\n"));
}

TEST_F(WatchVerb, PassesAllChangesOfOneReadToACommand) {
  const std::string command = "{ echo run; cat; echo end; } >>" + log;
  EXPECT_EQ(Watch({"--exec", command}, {"{}", R"({"a":{"k":"x","l":null}})", kAddEmptyB}), Ends(""));
  EXPECT_EQ(test_support::ReadTextFile(log), "run\n- [a] k=1\n+ [a] k=x\n- [a] l=2\nend\nrun\n+ [b]\nend\n");
  EXPECT_EQ(Watch({"--json", "--exec", "cat >" + log}, {R"({"a":{"k":"y"}})"}), Ends(""));
  EXPECT_EQ(test_support::ReadTextFile(log), "{\"section\":\"a\",\"key\":\"k\",\"before\":\"1\",\"after\":\"y\"}\n");
}

TEST_F(WatchVerb, GoesOnAfterACommandThatFailsOrDoesNotReadItsInput) {
  const std::pair<const char*, std::string> rows[] = {
      {"exit 3", "ledgerctl: warning: the command failed with status 3\n"},
      {"kill -9 $$", "ledgerctl: warning: the command was ended by signal 9\n"},
      {"exec 2>/dev/null; no-such-program", "ledgerctl: warning: the command failed with status 127\n"},
      {"exec <&-; exit 0", ""},
  };
  for (const auto& [command, warning] : rows) {
    SCOPED_TRACE(command);
    EXPECT_EQ(Watch({"--exec", command}, {R"({"a":{"k":"x"}})", R"({"a":{"k":"y"}})"}), Ends("", warning + warning));
    EXPECT_EQ(Watch({"-q", "--exec", command}, {R"({"a":{"k":"z"}})"}), Ends(""));
  }
}

// If the input were a pipe, it would fill up and block "watch".
TEST_F(WatchVerb, GoesOnAfterACommandThatDoesNotReadALargeInput) {
  BackEnd large("", 1000000);
  RecordingRegistry recording(*large.registry);
  recording.OnCall([&, reads = 0](const std::string&) mutable {
    if (++reads == 3) {
      throw Failure(ExitStatus::DaemonError, "over");
    }
    large->Write("a", "k" + std::to_string(reads), std::string(200000, 'x'));
  });
  EXPECT_EQ(RunOn(recording, {"watch", "-i", interval, "--exec", "true"}), Ends(""));
}

TEST_F(WatchVerb, WaitsBetweenTwoReads) {
  interval = "0.05";
  const auto start = std::chrono::steady_clock::now();
  Watch({}, {"{}"});
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

}  // namespace
}  // namespace test_client
