// The verbs that work with documents.
#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/temp_dir.h"

namespace test_client {
namespace {

constexpr char kText[] = "[a]\nk=1\nl=2\n[b]\nk=3\n";

class DocumentVerbs : public ClientTest {
protected:
  DocumentVerbs() : ClientTest(kText) {}

  std::string File(const std::string& document) {
    test_support::WriteTextFile(directory / "document", document);
    return directory / "document";
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
  const std::string warning = "ledgerctl: warning: no caller can reach section 'Net': not lower-case ASCII\n";
  EXPECT_EQ(RunOn(*edited.registry, {"dump"}), Outcome(0, "{\n  \"Net\": {\n    \"k\": \"1\"\n  }\n}\n", warning));
  EXPECT_EQ(RunOn(*edited.registry, {"load", "--replace"}, "{}"), Outcome(0, "", warning));
  EXPECT_EQ(RunOn(*edited.registry, {"load", "--missing-only"}, "{}"), Prints(""));
  EXPECT_EQ(edited.FlushedText(), "[Net]\nk=1\n");
}

TEST_F(DocumentVerbs, LoadMakesItsChangesInOneCall) {
  struct Row {
    Words words;
    const char* document;
    const char* text;  // of the file afterwards
    std::string warning = "";
  };
  const std::string spellings = "ledgerctl: warning: several spellings of section 'a'; they are one section\n";
  const Row rows[] = {
      {{"load"}, R"({"A":{"k":"x","l":null,"m":"y"},"b":null,"c":{}})", "[a]\nk=x\nm=y\n[c]\n"},
      {{"load", "-"}, R"({"b":null})", "[a]\nk=1\nl=2\n"},
      {{"load"}, R"({"A":{"k":"x"},"a":{"k":"y"}})", "[a]\nk=y\nl=2\n[b]\nk=3\n", spellings},
      {{"load", "--replace"}, R"({"a":{"l":"2","m":"y"},"c":{},"gone":null})", "[a]\nl=2\nm=y\n[c]\n"},
      {{"load", "--missing-only"},
       R"({"a":{"k":"x","m":"y"},"b":null,"c":{"K":"z"}})",
       "[a]\nk=1\nl=2\nm=y\n[b]\nk=3\n[c]\nk=z\n"},
      {{"load", "--text"}, "# new\n[A]\nK = 'x y'\nm\n[c]\n", "[a]\nk=x y\nl=2\nm\n[b]\nk=3\n[c]\n"},
      {{"load", "--text", "--replace"}, "[A]\nK=x\nm\n[c]\n", "[a]\nk=x\nm\n[c]\n"},
      {{"load", "--text", "--missing-only"}, "[A]\nK=x\nm\n[c]\n", "[a]\nk=1\nl=2\nm\n[b]\nk=3\n[c]\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.document);
    back_end->WriteJson(R"({"a":null,"c":null})");
    back_end->WriteJson(R"({"a":{"k":"1","l":"2"},"b":{"k":"3"}})");
    EXPECT_EQ(Run(row.words, row.document), Outcome(0, "", row.warning));
    const bool must_read = row.words.back() == "--replace" || row.words.back() == "--missing-only";
    EXPECT_EQ(registry.TakeCalls(), must_read ? Calls({"ReadAllJson", "WriteJson"}) : Calls({"WriteJson"}));
    EXPECT_EQ(back_end.store->Text(), row.text);
  }
}

TEST_F(DocumentVerbs, LoadPrintsWhatItWouldChange) {
  const std::string document = R"({"a":{"k":"x"},"b":null,"c":{}})";
  EXPECT_EQ(Run({"load", "--dry-run"}, document), Prints("- [a] k=1\n+ [a] k=x\n- [b] k=3\n+ [c]\n"));
  EXPECT_EQ(Run({"load", "--dry-run", "--replace"}, document),
            Prints("- [a] k=1\n+ [a] k=x\n- [a] l=2\n- [b] k=3\n+ [c]\n"));
  EXPECT_EQ(Run({"load", "--dry-run", "--missing-only"}, document), Prints("+ [c]\n"));
  EXPECT_EQ(registry.TakeCalls(), Calls(5, "ReadAllJson"));
}

// The prediction is exact to the byte.
TEST_F(DocumentVerbs, LoadPredictsThatTheRegistryWouldBeFull) {
  const std::size_t most = 16383 - std::string(kText).size() - std::string("m=\n").size();
  const char* full = "ledgerctl: registry full (16383 bytes); nothing changed\n";
  for (const auto& [length, status, error] : {std::tuple(most + 1, 5, full), std::tuple(most, 0, "")}) {
    const std::string value(length, 'x');
    const std::string path = File(R"({"a":{"m":")" + value + "\"}}");
    EXPECT_EQ(Run({"load", "--dry-run", path}), Outcome(status, "+ [a] m=" + value + "\n", error));
    EXPECT_EQ(Run({"load", path}), Outcome(status, "", error));
  }
}

TEST_F(DocumentVerbs, LoadMakesAllChangesOrNone) {
  struct Row {
    std::string document;
    Outcome outcome;
    bool is_text = false;
  };
  const std::string source = "standard input: ";
  const std::string no_document = source + "not a registry document: ";
  const std::string no_value = "the value of key 'k' in section 't' is neither a string nor null";
  const std::string name = "invalid name 'gr\xc3\xb6n': only ASCII is allowed";
  const std::string loss =
      "lost at a restart: key '[m' in section 'a' (begins with \"[\")\n"
      "Nothing changed. Use --force to accept the loss.";
  const Row rows[] = {
      {"[]", Fails(4, no_document + "the top level is not an object")},
      {R"({"a":{"k":"x"},"b":[]})", Fails(4, no_document + "section 'b' is neither an object nor null")},
      {R"({"a":{"k":"x"},"t":{"k":1}})", Fails(4, no_document + no_value)},
      {"{\"a\":{\"k\":\"x\"},\n}",
       Fails(4, source + "line 2, column 1: parse error - unexpected '}'; expected string literal")},
      {"{\"a\":{\"k\":\"x\"},\"gr\xc3\xb6n\":{}}", Fails(3, name)},
      {R"({"a":{"k":"x","[m":""}})", Fails(4, loss)},
      {R"({"a":{"k":"x"},"z":{"k":")" + std::string(16383, 'x') + "\"}}",
       Fails(5, "registry full (16383 bytes); nothing changed")},
      {"k=v\n", Fails(4, source + "line 1: this key is before the first [section]"), true},
      {"# nothing\n", Fails(4, source + "the text has no [section]"), true},
      {"[a]\nk='\n", Fails(4, source + "line 2: the quote is not closed"), true},
      {"[a]\nk=x\n[gr\xc3\xb6n]", Fails(3, source + "line 3: " + name), true},
      {"[a]\nk=x\n'[m'\n", Fails(4, loss), true},
  };
  for (const Row& row : rows) {
    for (const char* mode : {"-", "--replace", "--missing-only"}) {
      SCOPED_TRACE(mode);
      EXPECT_EQ(Run(row.is_text ? Words{"load", "--text", mode} : Words{"load", mode}, row.document), row.outcome);
      EXPECT_EQ(back_end.FlushedText(), kText);
    }
  }
}

TEST_F(DocumentVerbs, LoadAcceptsALossOnlyIfForced) {
  const std::string line = "lost at a restart: key 'n' in section 'a' (and everything after it: a NUL byte)\n";
  const Outcome refused = Fails(4, line + "Nothing changed. Use --force to accept the loss.");
  const std::string warning = "ledgerctl: warning: " + line;
  const std::string document = R"({"a":{"n":"\u0000"}})";
  EXPECT_EQ(Run({"load"}, document), refused);
  EXPECT_EQ(Run({"load", "--dry-run"}, document), refused);
  EXPECT_EQ(Run({"load", "--force", "--dry-run"}, document), Outcome(0, "+ [a] n=$'\\x00'\n", warning));
  EXPECT_FALSE(back_end->KeyExists("a", "n"));
  EXPECT_EQ(Run({"load", "--force"}, document), Outcome(0, "", warning));
  EXPECT_EQ(back_end->Read("a", "n"), std::string("\0", 1));
  // The key exists and is not set again, so this does not lose it.
  EXPECT_EQ(Run({"load", "--missing-only"}, document), Prints(""));
}

TEST_F(DocumentVerbs, DiffAnswersByItsStatus) {
  EXPECT_EQ(Run({"diff", File(R"({"A":{"k":"1","l":"2"},"b":{"k":"3"}})")}), Prints(""));
  EXPECT_EQ(Run({"diff", "-"}, R"({"a":{"k":"1","m":""},"b":null,"c":{}})"),
            Outcome(1, "- [a] l=2\n+ [a] m=\n- [b] k=3\n+ [c]\n", ""));
}

TEST_F(DocumentVerbs, ReportTheFile) {
  const std::string path = directory / "none/file";
  for (const char* verb : {"load", "diff", "dump"}) {
    EXPECT_EQ(Run({verb, path}), Fails(10, path + ": No such file or directory"));
  }
  EXPECT_EQ(Run({"load", File("[]")}),
            Fails(4, File("[]") + ": not a registry document: the top level is not an object"));
}

}  // namespace
}  // namespace test_client
