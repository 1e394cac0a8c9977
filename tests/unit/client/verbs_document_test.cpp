// The verbs that work with JSON documents.
#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/temp_dir.h"

namespace test_client {
namespace {

class DocumentVerbs : public ClientTest {
protected:
  DocumentVerbs() : ClientTest("[a]\nk=1\nl=2\n[b]\nk=3\n") {}

  std::string File(const std::string& json) {
    const std::string path = directory / "document.json";
    test_support::WriteTextFile(path, json);
    return path;
  }

  test_support::TempDir directory;
};

TEST_F(DocumentVerbs, DumpPrintsOrSaves) {
  const std::string json =
      "{\n  \"a\": {\n    \"k\": \"1\",\n    \"l\": \"2\"\n  },\n  \"b\": {\n    \"k\": \"3\"\n  }\n}\n";
  EXPECT_EQ(Run({"dump"}), Prints(json));
  EXPECT_EQ(Run({"dump", "-"}), Prints(json));
  EXPECT_EQ(registry.TakeCalls(), (Calls{"ReadAllJson", "ReadAllJson"}));
  EXPECT_EQ(Run({"dump", directory / "saved"}), Prints(""));
  EXPECT_EQ(test_support::ReadTextFile(directory / "saved"), json);
}

TEST_F(DocumentVerbs, WarnOfNamesThatLoadWouldFold) {
  BackEnd edited("[Net]\nk=1\n");
  const std::string warning = "ledgerctl: warning: out of reach, not lower-case ASCII: section 'Net'\n";
  EXPECT_EQ(RunOn(*edited.registry, {"dump"}), (Outcome{0, "{\n  \"Net\": {\n    \"k\": \"1\"\n  }\n}\n", warning}));
  EXPECT_EQ(RunOn(*edited.registry, {"load", "--replace", File("{}")}), (Outcome{0, "", warning}));
  EXPECT_EQ(RunOn(*edited.registry, {"load", "--missing-only", File("{}")}), Prints(""));
  EXPECT_EQ(edited.FlushedText(), "[Net]\nk=1\n");
}

TEST_F(DocumentVerbs, LoadMergesInOneCall) {
  EXPECT_EQ(Run({"load", File(R"({"A":{"k":"x","l":null,"m":"y"},"b":null,"c":{}})")}), Prints(""));
  EXPECT_EQ(registry.TakeCalls(), (Calls{"WriteJson"}));
  EXPECT_EQ(back_end.store->Text(), "[a]\nk=x\nm=y\n[c]\n");
}

TEST_F(DocumentVerbs, LoadWarnsOfSeveralSpellings) {
  EXPECT_EQ(Run({"load", File(R"({"A":{"k":"x"},"a":{"k":"y"}})")}),
            (Outcome{0, "", "ledgerctl: warning: several spellings of section 'a'; they are one section\n"}));
}

TEST_F(DocumentVerbs, LoadTakesStandardInput) {
  for (const std::vector<std::string>& command : {std::vector<std::string>{"load"}, {"load", "-"}}) {
    const StandardInput input(R"({"b":null})");
    EXPECT_EQ(Run(command), Prints(""));
    EXPECT_EQ(back_end.store->Text(), "[a]\nk=1\nl=2\n");
  }
}

TEST_F(DocumentVerbs, LoadReplacesInOneCall) {
  EXPECT_EQ(Run({"load", "--replace", File(R"({"a":{"l":"2","m":"y"},"c":{},"gone":null})")}), Prints(""));
  EXPECT_EQ(registry.TakeCalls(), (Calls{"ReadAllJson", "WriteJson"}));
  EXPECT_EQ(back_end.store->Text(), "[a]\nl=2\nm=y\n[c]\n");
}

TEST_F(DocumentVerbs, LoadSetsWhatIsMissing) {
  EXPECT_EQ(Run({"load", "--missing-only", File(R"({"a":{"k":"x","m":"y"},"b":null,"c":{"K":"z"}})")}), Prints(""));
  EXPECT_EQ(registry.TakeCalls(), (Calls{"ReadAllJson", "WriteJson"}));
  EXPECT_EQ(back_end.store->Text(), "[a]\nk=1\nl=2\nm=y\n[b]\nk=3\n[c]\nk=z\n");
}

TEST_F(DocumentVerbs, LoadShowsWhatItWouldDo) {
  struct Row {
    std::vector<std::string> options;
    const char* output;
  };
  const Row rows[] = {
      {{}, "- [a] k=1\n+ [a] k=x\n- [b] k=3\n+ [c]\n"},
      {{"--replace"}, "- [a] k=1\n+ [a] k=x\n- [a] l=2\n- [b] k=3\n+ [c]\n"},
      {{"--missing-only"}, "+ [c]\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.output);
    std::vector<std::string> command = {"load", "--dry-run", File(R"({"a":{"k":"x"},"b":null,"c":{}})")};
    command.insert(command.end(), row.options.begin(), row.options.end());
    EXPECT_EQ(Run(command), Prints(row.output));
    for (const std::string& call : registry.TakeCalls()) {
      EXPECT_EQ(call, "ReadAllJson");
    }
  }
}

// To the byte, as the daemon counts.
TEST_F(DocumentVerbs, LoadPredictsThatTheRegistryWouldBeFull) {
  const std::size_t most = 16383 - back_end.FlushedText().size() - std::string("m=\n").size();
  const char* full = "ledgerctl: registry full (16383 bytes); nothing changed\n";
  for (const auto& [length, status, error] : {std::tuple(most + 1, 5, full), std::tuple(most, 0, "")}) {
    const std::string value(length, 'x');
    const std::string path = File(R"({"a":{"m":")" + value + "\"}}");
    EXPECT_EQ(Run({"load", "--dry-run", path}), (Outcome{status, "+ [a] m=" + value + "\n", error}));
    EXPECT_EQ(Run({"load", path}), (Outcome{status, "", error}));
  }
}

TEST_F(DocumentVerbs, LoadIsAllOrNothing) {
  const std::string before = back_end.FlushedText();
  struct Row {
    const char* name;
    std::string json;
    int status;
  };
  const Row rows[] = {
      {"full", R"({"a":{"k":"x"},"z":{"k":")" + std::string(16383, 'x') + "\"}}", 5},
      {"bad name", "{\"a\":{\"k\":\"x\"},\"\xc3\xb6\":{}}", 3},
      {"bad shape", R"({"a":{"k":"x"},"b":[]})", 4},
      {"no JSON", R"({"a":{"k":"x"},)", 4},
      {"lost at a restart", R"({"a":{"k":"x","[m":""}})", 4},
  };
  for (const Row& row : rows) {
    for (const char* mode : {"", "--replace", "--missing-only"}) {
      SCOPED_TRACE(row.name + std::string(mode));
      std::vector<std::string> command = {"load", File(row.json)};
      if (*mode != '\0') {
        command.emplace_back(mode);
      }
      const Outcome outcome = Run(command);
      EXPECT_EQ(outcome.status, row.status);
      EXPECT_EQ(outcome.output, "");
      EXPECT_EQ(outcome.error.find("ledgerctl: "), 0u) << outcome;
      EXPECT_EQ(back_end.FlushedText(), before);
    }
  }
}

TEST_F(DocumentVerbs, LoadReadsTheTextForm) {
  struct Row {
    std::vector<std::string> options;
    const char* text;
  };
  const char* const document = "# new\n[A]\nK = 'x y'\nm\n[c]\n";
  const Row rows[] = {
      {{}, "[a]\nk=x y\nl=2\nm\n[b]\nk=3\n[c]\n"},
      {{"--missing-only"}, "[a]\nk=1\nl=2\nm\n[b]\nk=3\n[c]\n"},
      {{"--replace"}, "[a]\nk=x y\nm\n[c]\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.text);
    back_end->DeleteAll();
    back_end->WriteJson(R"({"a":{"k":"1","l":"2"},"b":{"k":"3"}})");
    std::vector<std::string> command = {"load", "--text", File(document)};
    command.insert(command.end(), row.options.begin(), row.options.end());
    EXPECT_EQ(Run(command), Prints(""));
    EXPECT_EQ(back_end.store->Text(), row.text);
  }
}

TEST_F(DocumentVerbs, LoadNamesTheLineOfTheText) {
  const std::string path = File("[a]\nk='\n");
  EXPECT_EQ(Run({"load", "--text", path}),
            (Outcome{4, "", "ledgerctl: " + path + ": line 2: the quote is not closed\n"}));
  for (const char* mode : {"--replace", "--force"}) {
    const StandardInput input("# nothing\n");
    EXPECT_EQ(Run({"load", "--text", mode}),
              (Outcome{4, "", "ledgerctl: standard input: the text has no [section]\n"}));
  }
  EXPECT_EQ(registry.TakeCalls(), Calls());
}

TEST_F(DocumentVerbs, LoadRefusesWhatARestartLosesUnlessForced) {
  const std::string line = "lost at a restart: key 'n' in section 'a' (and everything after it: a NUL byte)\n";
  const Outcome refused = {4, "", "ledgerctl: " + line + "Nothing changed. Use --force to accept the loss.\n"};
  const std::string warning = "ledgerctl: warning: " + line;
  const std::string path = File(R"({"a":{"n":"\u0000"}})");
  EXPECT_EQ(Run({"load", path}), refused);
  EXPECT_EQ(Run({"load", "--dry-run", path}), refused);
  EXPECT_EQ(Run({"load", "--force", "--dry-run", path}), (Outcome{0, "+ [a] n=$'\\x00'\n", warning}));
  EXPECT_FALSE(back_end->KeyExists("a", "n"));
  EXPECT_EQ(Run({"load", "--force", path}), (Outcome{0, "", warning}));
  EXPECT_EQ(back_end->Read("a", "n"), std::string("\0", 1));
  // Not set again, so not lost by this.
  EXPECT_EQ(Run({"load", "--missing-only", path}), Prints(""));
}

TEST_F(DocumentVerbs, DiffAnswersByItsStatus) {
  EXPECT_EQ(Run({"diff", File(R"({"A":{"k":"1","l":"2"},"b":{"k":"3"}})")}), Prints(""));
  EXPECT_EQ(Run({"diff", File(R"({"a":{"k":"1","m":""},"b":null,"c":{}})")}),
            (Outcome{1, "- [a] l=2\n+ [a] m=\n- [b] k=3\n+ [c]\n", ""}));
  const StandardInput input("{}");
  EXPECT_EQ(Run({"diff", "-"}).status, 1);
}

TEST_F(DocumentVerbs, NameTheFileThatIsMissing) {
  const std::string path = directory / "none";
  const Outcome outcome = {10, "", "ledgerctl: " + path + ": No such file or directory\n"};
  EXPECT_EQ(Run({"load", path}), outcome);
  EXPECT_EQ(Run({"diff", path}), outcome);
  const std::string beyond = directory / "none/file";
  EXPECT_EQ(Run({"dump", beyond}), (Outcome{10, "", "ledgerctl: " + beyond + ": No such file or directory\n"}));
}

}  // namespace
}  // namespace test_client
