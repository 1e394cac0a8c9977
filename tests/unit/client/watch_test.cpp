// "watch", ended by an error of the daemon.
#include <chrono>

#include "client/failure.h"
#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/temp_dir.h"

namespace test_client {
namespace {

using ledgerctl::ExitStatus;
using ledgerctl::Failure;

/// Instead of a change: the read fails, as the daemon does not run or the bus denies access.
constexpr char kNotRunning[] = "not running";
constexpr char kDenied[] = "denied";

/// Adds a key and deletes it: the section stays.
constexpr char kAddEmptyB[] = R"({"b":{"K":"","k":null}})";

class WatchVerb : public ClientTest {
protected:
  WatchVerb() : ClientTest("[a]\nk=1\nl=2\n") {}

  /// Watches while each of `changes` is made before a read, then an error ends it.
  Outcome Watch(std::vector<std::string> arguments, const std::vector<std::string>& changes) {
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
      if (change == kNotRunning) {
        throw Failure(ExitStatus::NotRunning, "gone");
      }
      if (change == kDenied) {
        throw Failure(ExitStatus::Denied, "denied");
      }
      back_end->WriteJson(change);
    });
    arguments.insert(arguments.begin(), {"watch", "-i", interval});
    const int status = RunOn(registry, arguments, output.Fd(), error.Fd());
    EXPECT_EQ(seen, output.Text()) << "printed late";
    return {status, seen, error.Text()};
  }

  /// What the watch prints until the error.
  static Outcome Ends(const std::string& output, const std::string& warnings = "") {
    return {9, output, warnings + "ledgerctl: over\n"};
  }

  std::string interval = "0.001";
  test_support::TempDir directory;
};

TEST_F(WatchVerb, PrintsOldAndNewValues) {
  EXPECT_EQ(Watch({}, {R"({"a":{"k":"x"}})", "{}", R"({"a":{"l":null},"b":{"m":"a b"}})", R"({"a":null})"}),
            Ends("- [a] k=1\n+ [a] k=x\n- [a] l=2\n+ [b] m='a b'\n- [a] k=x\n"));
}

TEST_F(WatchVerb, PrintsJson) {
  EXPECT_EQ(Watch({"--json"}, {R"({"a":{"k":"\"\n","l":null}})", R"({"b":{"m":""},"c":{"K":"","k":null}})",
                               R"({"b":null,"c":null})"}),
            Ends(R"({"section":"a","key":"k","before":"1","after":"\"\n"})"
                 "\n"
                 R"({"section":"a","key":"l","before":"2","after":null})"
                 "\n"
                 R"({"section":"b","key":"m","before":null,"after":""})"
                 "\n"
                 R"({"section":"c","key":null,"before":null,"after":{}})"
                 "\n"
                 R"({"section":"b","key":"m","before":"","after":null})"
                 "\n"
                 R"({"section":"c","key":null,"before":{},"after":null})"
                 "\n"));
}

TEST_F(WatchVerb, ReadsOneSection) {
  EXPECT_EQ(Watch({"A"}, {R"({"b":{"m":"1"}})", R"({"a":{"n":""}})"}), Ends("+ [a] n=\n"));
}

TEST_F(WatchVerb, ReadsOneSectionThatIsAddedWithoutKeys) {
  EXPECT_EQ(Watch({"b"}, {kAddEmptyB, "{}", R"({"b":null})"}), Ends("+ [b]\n- [b]\n"));
}

TEST_F(WatchVerb, ReadsOneKeyThatIsAdded) {
  EXPECT_EQ(Watch({"b", "M"}, {R"({"b":{"n":"1"}})", R"({"b":{"m":"2"}})", R"({"b":null})"}),
            Ends("+ [b] m=2\n- [b] m=2\n"));
}

TEST_F(WatchVerb, WaitsForTheDaemonAndComparesWithTheStateBefore) {
  const std::vector<std::string> changes = {"{}", kNotRunning, kNotRunning, R"({"a":{"k":"x"}})", kNotRunning, "{}"};
  const std::string warning = "ledgerctl: warning: gone\nThe watch goes on when the daemon runs again.\n";
  EXPECT_EQ(Watch({}, changes), Ends("- [a] k=1\n+ [a] k=x\n", warning + warning));
  EXPECT_EQ(Watch({"-q"}, {kNotRunning}), Ends(""));
}

// A bus that starts has its socket a moment before its users may connect to it.
TEST_F(WatchVerb, EndsWhenAccessIsDeniedUnlessItWaits) {
  const std::string warning = "ledgerctl: warning: gone\nThe watch goes on when the daemon runs again.\n";
  EXPECT_EQ(Watch({}, {kNotRunning, kDenied, kDenied, R"({"a":{"k":"x"}})"}), Ends("- [a] k=1\n+ [a] k=x\n", warning));
  EXPECT_EQ(Watch({}, {kNotRunning, "{}", kDenied}), (Outcome{7, "", warning + "ledgerctl: denied\n"}));
}

TEST_F(WatchVerb, GivesACommandAllChangesOfOneRead) {
  const std::string log = directory / "log";
  const std::string command = "{ echo run; cat; echo end; } >>" + log;
  EXPECT_EQ(Watch({"--exec", command}, {"{}", R"({"a":{"k":"x","l":null}})", kAddEmptyB}), Ends(""));
  EXPECT_EQ(test_support::ReadTextFile(log), "run\n- [a] k=1\n+ [a] k=x\n- [a] l=2\nend\nrun\n+ [b]\nend\n");
  EXPECT_EQ(Watch({"--json", "--exec", "cat >" + log}, {R"({"a":{"k":"y"}})"}), Ends(""));
  EXPECT_EQ(test_support::ReadTextFile(log), "{\"section\":\"a\",\"key\":\"k\",\"before\":\"x\",\"after\":\"y\"}\n");
}

TEST_F(WatchVerb, GoesOnAfterACommandThatFails) {
  struct Row {
    const char* command;
    const char* warning;
  };
  const Row rows[] = {
      {"exit 3", "failed with status 3"},
      {"kill -9 $$", "was ended by signal 9"},
      {"exec <&-; exit 0", nullptr},
      {"exec 2>/dev/null; no-such-program", "failed with status 127"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.command);
    const std::string warning =
        row.warning == nullptr ? "" : std::string("ledgerctl: warning: the command ") + row.warning + "\n";
    EXPECT_EQ(Watch({"--exec", row.command}, {R"({"a":{"k":"x"}})", R"({"a":{"k":"y"}})"}),
              Ends("", warning + warning));
    EXPECT_EQ(Watch({"-q", "--exec", row.command}, {R"({"a":{"k":"z"}})"}), Ends(""));
  }
}

// Such a pipe would fill up.
TEST_F(WatchVerb, GoesOnAfterACommandThatDoesNotReadItsInput) {
  const std::string value(200000, 'x');
  BackEnd large("", 1000000);
  std::size_t reads = 0;
  RecordingRegistry recording(*large.registry);
  recording.OnCall([&](const std::string&) {
    if (++reads == 3) {
      throw Failure(ExitStatus::DaemonError, "over");
    }
    large->Write("a", "k" + std::to_string(reads), value);
  });
  EXPECT_EQ(RunOn(recording, {"watch", "-i", interval, "--exec", "true"}), Ends(""));
}

TEST_F(WatchVerb, WaitsBetweenTwoLooks) {
  interval = "0.05";
  const auto start = std::chrono::steady_clock::now();
  Watch({}, {"{}"});
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

}  // namespace
}  // namespace test_client
