// "edit", with shell scripts as editors.
#include <cstdlib>
#include <filesystem>

#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/temp_dir.h"

namespace test_client {
namespace {

constexpr char kText[] = "[a]\nk=1\nl=2\n[b]\nk=3\n";

class EditVerb : public ClientTest {
protected:
  EditVerb() : ClientTest(kText) {
    std::filesystem::create_directory(temporary);
    ::setenv("TMPDIR", temporary.c_str(), 1);
    ::unsetenv("VISUAL");
  }
  ~EditVerb() override { ::unsetenv("TMPDIR"); }

  /// Another client makes the change before the second read of the registry and each later one.
  void Reset(const std::string& change_of_another = "{}") {
    registry.OnCall(nullptr);
    back_end->DeleteAll();
    back_end->WriteJson(R"({"a":{"k":"1","l":"2"},"b":{"k":"3"}})");
    registry.TakeCalls();
    registry.OnCall([change_of_another, reads = 0, this](const std::string& call) mutable {
      if (call == "ReadAllJson" && ++reads > 1) {
        back_end->WriteJson(change_of_another);
      }
    });
  }

  /// Removes the files that an edit has left. Returns the text that reports them with PATH instead of their paths.
  std::string TakeLeftFiles(std::string text) {
    for (const auto& entry : std::filesystem::directory_iterator(temporary)) {
      const std::string path = entry.path();
      EXPECT_NE(text.find(path), std::string::npos) << text;
      EXPECT_EQ(entry.status().permissions(), std::filesystem::perms(0600));
      text.replace(std::min(text.find(path), text.size()), path.size(), "PATH");
      std::filesystem::remove(entry);
    }
    return text;
  }

  Outcome EditWith(const std::string& editor, const Words& words = {"edit"}) {
    ::setenv("EDITOR", editor.c_str(), 1);
    Outcome outcome = Run(words);
    std::get<2>(outcome) = TakeLeftFiles(std::get<2>(outcome));
    return outcome;
  }

  test_support::TempDir directory;
  const std::string temporary = directory / "a b";
};

const Outcome kNothingChanged = {0, "", "Nothing changed.\n"};
const std::string kKept = "\nYour text is kept in PATH\n";
const std::string kLoss = "lost at a restart: key '[k' in section 'b' (begins with \"[\")\n";
const std::string kChanged = "- [a] k=1\n+ [a] k=x\n";
constexpr char kSetX[] = "sed -i s/=1/=x/";

Outcome Kept(int status, const std::string& output, const std::string& reason) {
  return {status, output, "ledgerctl: " + reason + kKept};
}

Outcome Conflict(const std::string& output, const std::string& key, const std::string& section) {
  return Kept(10, output, "key '" + key + "' in section '" + section + "' has changed meanwhile; nothing changed");
}

struct Row {
  const char* name;
  const char* editor;
  Outcome outcome;
  std::string text = kText;  // of the registry afterwards
  std::string argument = "";
  const char* others = "{}";
};

void PrintTo(const Row& row, std::ostream* stream) { *stream << row.name; }

class EditVerbWith : public EditVerb, public testing::WithParamInterface<Row> {};

TEST_P(EditVerbWith, PrintsTheChangesAndMakesThemUnlessItFails) {
  const Row& row = GetParam();
  Reset(row.others);
  EXPECT_EQ(EditWith(row.editor, row.argument.empty() ? Words{"edit"} : Words{"edit", row.argument}), row.outcome);
  EXPECT_EQ(registry.TakeCalls().size() == 1, std::get<1>(row.outcome).empty());
  EXPECT_EQ(back_end.FlushedText(), row.text);
}

const Row kRows[] = {
    {"Keys", "sed -i -e s/k=1/k=x/ -e /l=/d", Prints("- [a] k=1\n+ [a] k=x\n- [a] l=2\n"), "[a]\nk=x\n[b]\nk=3\n"},
    {"Header", "sed -i '/^.b/,$d'", Prints("- [b] k=3\n"), "[a]\nk=1\nl=2\n"},
    {"OneSection", "f() { printf '[B]\\nm=4\\n[b]\\nn=5\\n' > \"$1\"; }; f",
     Prints("- [b] k=3\n+ [b] m=4\n+ [b] n=5\n"), "[a]\nk=1\nl=2\n[b]\nm=4\nn=5\n", "B"},
    {"LossIfForced", "sed -i s/^k=3/\"'[k'=3\"/",
     Outcome(0, "+ [b] '[k'=3\n- [b] k=3\n", "ledgerctl: warning: " + kLoss), "[a]\nk=1\nl=2\n[b]\n[k=3\n", "--force"},
    {"Nothing", "true", kNothingChanged},
    {"NothingQuietly", "true", Prints(""), kText, "-q"},
    {"NothingInOneSection", "grep -qx k=3", kNothingChanged, kText, "B"},
    {"MissingSection", "true", Fails(1, "no section 'c'"), kText, "c"},
    {"KeyThatOthersKeep", kSetX, Prints(kChanged), "[a]\nk=x\nl=other\n[b]\nk=3\n", "", R"({"a":{"l":"other"}})"},
    {"KeyThatOthersChange", kSetX, Conflict(kChanged, "k", "a"), "[a]\nk=other\nl=2\n[b]\nk=3\n", "",
     R"({"a":{"k":"other"}})"},
    {"KeyThatOthersDelete", kSetX, Conflict(kChanged, "k", "a"), "[a]\nl=2\n[b]\nk=3\n", "", R"({"a":{"k":null}})"},
    {"KeyThatOthersAdd", "sed -i s/^l=2/new=x/", Conflict("- [a] l=2\n+ [a] new=x\n", "new", "a"),
     "[a]\nk=1\nl=2\nnew=other\n[b]\nk=3\n", "", R"({"a":{"new":"other"}})"},
    {"SectionThatOthersChange", "sed -i -e '/.b./d' -e /k=3/d", Conflict("- [b] k=3\n", "new", "b"),
     "[a]\nk=1\nl=2\n[b]\nk=3\nnew=1\n", "", R"({"b":{"new":"1"}})"},
    {"OpenQuote", "sed -i \"s/=1/='/\"", Kept(10, "", "line 7: the quote is not closed")},
    {"BadName", "sed -i s/^k/gr\xc3\xb6n/", Kept(3, "", "line 7: invalid name 'gr\xc3\xb6n': only ASCII is allowed")},
    {"Loss", "sed -i s/^k=3/\"'[k'=3\"/", Kept(10, "", kLoss + "Nothing changed. Use --force to accept the loss.")},
    {"Full", "f() { sed -i s/=1/=$(head -c 17000 /dev/zero | tr '\\0' x)/ \"$1\"; }; f",
     Kept(5, "- [a] k=1\n+ [a] k=" + std::string(17000, 'x') + "\n", "registry full (16383 bytes); nothing changed")},
    {"NotUtf8", "sed -i s/=1/=\\\\xff/", Kept(10, "", "line 7: the value of key 'k' in section 'a' is not UTF-8")},
    {"OtherSection", "sed -i '$a[A]\\nk=x'",
     Kept(10, "", "line 8: this is section 'a', but only section 'b' can be changed"), kText, "B"},
};
INSTANTIATE_TEST_SUITE_P(, EditVerbWith, testing::ValuesIn(kRows), [](const auto& row) { return row.param.name; });

TEST_F(EditVerb, ChangesNothingIfTheTextIsEmpty) {
  const std::string reason = "the text is empty; nothing changed\nTo delete ";
  for (const char* editor : {"truncate -s 0", "f() { printf ' \\n\\t\\r\\n' > $1; }; f", "sed -i s/^/#/"}) {
    SCOPED_TRACE(editor);
    EXPECT_EQ(EditWith(editor), Fails(10, reason + "everything: ledgerctl clear --yes"));
    EXPECT_EQ(EditWith(editor, {"edit", "B"}), Fails(10, reason + "the section: ledgerctl unset -r B"));
    EXPECT_EQ(registry.TakeCalls(), (Calls{"ReadAllJson", "ReadAllJson"}));
  }
  back_end->DeleteAll();
  EXPECT_EQ(EditWith("true"), kNothingChanged);
}

TEST_F(EditVerb, RunsVisualThenEditorThenVi) {
  test_support::WriteTextFile(directory / "vi", "#!/bin/sh\nexec sed -i s/1/vi/ \"$1\"\n");
  std::filesystem::permissions(directory / "vi", std::filesystem::perms(0755));
  const std::string path = std::getenv("PATH");
  ::setenv("PATH", (directory.Path() + ":" + path).c_str(), 1);
  // An empty variable counts as unset.
  const char* const rows[][3] = {
      {"sed -i s/1/visual/", "false", "visual"}, {"", "sed -i s/1/editor/", "editor"}, {"", "", "vi"}};
  for (const auto& [visual, editor, value] : rows) {
    back_end->Write("a", "k", "1");
    ::setenv("VISUAL", visual, 1);
    EXPECT_EQ(EditWith(editor), Prints(std::string("- [a] k=1\n+ [a] k=") + value + "\n"));
  }
  ::unsetenv("VISUAL");
  ::unsetenv("EDITOR");
  back_end->Write("a", "k", "1");
  EXPECT_EQ(Run({"edit"}), Prints("- [a] k=1\n+ [a] k=vi\n"));
  ::setenv("PATH", path.c_str(), 1);
}

TEST_F(EditVerb, ChangesNothingIfTheEditorFails) {
  for (const std::string editor : {"false", "/nonexistent/editor", "sed -i s/1/x/ /nonexistent", "kill -KILL $$;"}) {
    SCOPED_TRACE(editor);
    EXPECT_EQ(EditWith(editor + " 2>/dev/null"), Fails(10, "the editor failed; nothing changed"));
  }
  const auto [status, output, error] = EditWith("rm");
  EXPECT_EQ(status, 10);
  EXPECT_EQ(error.find("kept"), std::string::npos) << error;
}

TEST_F(EditVerb, AsksOnATerminalWhetherToEditAgain) {
  const std::string question = "What now? (e)dit again, (q)uit and keep the text: ";
  const std::string mistake = "ledgerctl: line 7: the quote is not closed\n" + question;
  const std::string conflict = "ledgerctl: key 'k' in section 'a' has changed meanwhile; nothing changed\n" + question;
  struct Dialogue {
    const char* name;
    const char* editor;
    const char* others;  // the value that another client writes
    const char* answers;
    int status;
    std::string shown;
  };
  const Dialogue rows[] = {
      {"another answer", "sed -i \"s/=1$/='/\"", "1", "x\n\nquit\n", 10,
       mistake + question + question + "ledgerctl: nothing changed" + kKept},
      {"corrects the mistake", "sed -i \"s/='$/=x/;s/=1$/='/\"", "1", "e\n", 0, mistake},
      {"the editor fails the second time", "f() { grep -q =1 \"$1\" && sed -i \"s/=1$/='/\" \"$1\"; }; f", "1", "e\n",
       10, mistake + "ledgerctl: the editor failed; nothing changed" + kKept},
      {"change of another client", "sed -i s/=1/=x/", "other", "e\nq\n", 10,
       conflict + conflict + "ledgerctl: nothing changed" + kKept},
  };
  for (const Dialogue& row : rows) {
    SCOPED_TRACE(row.name);
    Reset(std::string(R"({"a":{"k":")") + row.others + "\"}}");
    ::setenv("EDITOR", row.editor, 1);
    const Terminal terminal(80, row.answers);
    const StandardInput input(terminal.Fd());
    const MemoryFile output;
    EXPECT_EQ(RunOn(registry, {"edit"}, output.Fd(), terminal.Fd()), row.status);
    EXPECT_EQ(TakeLeftFiles(terminal.Shown()), row.shown);
  }
}

TEST_F(EditVerb, AsksNothingUnlessInputAndErrorsAreATerminal) {
  const std::string editor = "sed -i \"s/='$/=x/;s/=1$/='/\"";
  const Terminal terminal(80, "e\n");
  const MemoryFile file("e\n");
  for (const auto& [input, error] : {std::pair(terminal.Fd(), file.Fd()), {file.Fd(), terminal.Fd()}}) {
    const StandardInput standard_input(input);
    ::setenv("EDITOR", editor.c_str(), 1);
    EXPECT_EQ(RunOn(registry, {"edit"}, file.Fd(), error), 10);
  }
  EXPECT_EQ(terminal.Shown().find("What now?"), std::string::npos);
  EXPECT_EQ(file.Text().find("What now?"), std::string::npos);
}

TEST_F(EditVerb, WarnsOfNamesThatNoCallerCanReach) {
  BackEnd edited("[Net]\nk=1\n[s]\nK=1\nk=1\n[t]\nk=1\n");
  ::setenv("EDITOR", "sed -i '/^.s/,/^$/d'", 1);
  EXPECT_EQ(RunOn(*edited.registry, {"edit"}),
            Outcome(0, "- [s] k=1\n",
                    "ledgerctl: warning: no caller can reach section 'Net': not lower-case ASCII\n"
                    "ledgerctl: warning: no caller can reach key 'K' in section 's': not lower-case ASCII\n"));
  EXPECT_EQ(edited.FlushedText(), "[Net]\nk=1\n[t]\nk=1\n");
}

}  // namespace
}  // namespace test_client
