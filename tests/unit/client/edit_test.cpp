// "edit", with shell scripts as editors.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/temp_dir.h"

namespace test_client {
namespace {

class EditVerb : public ClientTest {
protected:
  EditVerb() : ClientTest("[a]\nk=1\nl=2\n[b]\nk=3\n") {
    std::filesystem::create_directory(temporary);
    ::setenv("TMPDIR", temporary.c_str(), 1);
    ::unsetenv("VISUAL");
  }

  ~EditVerb() override { ::unsetenv("TMPDIR"); }

  Outcome EditWith(const std::string& editor, const std::vector<std::string>& arguments = {"edit"}) {
    ::setenv("EDITOR", editor.c_str(), 1);
    return Run(arguments);
  }

  std::vector<std::string> LeftFiles() const {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(temporary)) {
      files.push_back(entry.path());
    }
    return files;
  }

  test_support::TempDir directory;
  const std::string temporary = directory / "a b";
};

TEST_F(EditVerb, MergesWhatTheUserChanged) {
  EXPECT_EQ(EditWith("sed -i -e s/k=1/k=x/ -e /l=/d"), Prints("- [a] k=1\n+ [a] k=x\n- [a] l=2\n"));
  EXPECT_EQ(back_end.store->Text(), "[a]\nk=x\n[b]\nk=3\n");
  EXPECT_TRUE(LeftFiles().empty());
}

TEST_F(EditVerb, ChangesNothingWhenTheUserDoesNot) {
  EXPECT_EQ(EditWith("true"), (Outcome{0, "", "Nothing changed.\n"}));
  EXPECT_EQ(registry.TakeCalls(), (Calls{"ReadAllJson"}));
  EXPECT_EQ(EditWith("true", {"-q", "edit"}), Prints(""));
  EXPECT_TRUE(LeftFiles().empty());
}

TEST_F(EditVerb, ShowsOneSectionAndLeavesTheOthers) {
  EXPECT_EQ(EditWith("grep -qx k=3", {"edit", "B"}), (Outcome{0, "", "Nothing changed.\n"}));
  EXPECT_EQ(EditWith("f() { printf '[B]\\nm=4\\n[b]\\nn=5\\n' > \"$1\"; }; f", {"edit", "B"}),
            Prints("- [b] k=3\n+ [b] m=4\n+ [b] n=5\n"));
  EXPECT_EQ(back_end.store->Text(), "[a]\nk=1\nl=2\n[b]\nm=4\nn=5\n");
  EXPECT_EQ(EditWith("true", {"edit", "c"}), (Outcome{1, "", "ledgerctl: no section 'c'\n"}));
}

TEST_F(EditVerb, DeletesASectionWithItsHeader) {
  EXPECT_EQ(EditWith("sed -i '/^.b/,$d'"), Prints("- [b] k=3\n"));
  EXPECT_EQ(back_end.store->Text(), "[a]\nk=1\nl=2\n");
}

TEST_F(EditVerb, ChangesNothingIfTheTextIsEmpty) {
  const Outcome everything = {
      10, "", "ledgerctl: the text is empty; nothing changed\nTo delete everything: ledgerctl clear --yes\n"};
  const Outcome section = {
      10, "", "ledgerctl: the text is empty; nothing changed\nTo delete the section: ledgerctl unset -r B\n"};
  for (const char* editor : {"truncate -s 0", "f() { printf ' \\n\\t\\r\\n' > $1; }; f", "sed -i s/^/#/"}) {
    SCOPED_TRACE(editor);
    EXPECT_EQ(EditWith(editor), everything);
    EXPECT_EQ(EditWith(editor, {"edit", "B"}), section);
    EXPECT_EQ(registry.TakeCalls(), (Calls{"ReadAllJson", "ReadAllJson"}));
    EXPECT_TRUE(LeftFiles().empty());
  }
  back_end->DeleteAll();
  EXPECT_EQ(EditWith("true"), (Outcome{0, "", "Nothing changed.\n"}));
}

TEST_F(EditVerb, RunsVisualThenEditorThenVi) {
  const test_support::TempDir programs;
  test_support::WriteTextFile(programs / "vi", "#!/bin/sh\nexec sed -i s/1/vi/ \"$1\"\n");
  std::filesystem::permissions(programs / "vi", std::filesystem::perms(0755));
  const std::string path = std::getenv("PATH");
  ::setenv("PATH", (programs.Path() + ":" + path).c_str(), 1);
  // An empty variable counts as none.
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

TEST_F(EditVerb, RefusesToOverwriteWhatOthersChanged) {
  struct Row {
    const char* name;
    const char* editor;
    const char* others;
    const char* output;
    const char* culprit;  // null if both changes are kept
  };
  const char* const changed = "- [a] k=1\n+ [a] k=x\n";
  const Row rows[] = {
      {"another key", "sed -i s/=1/=x/", R"({"a":{"l":"other"}})", changed, nullptr},
      {"the same key", "sed -i s/=1/=x/", R"({"a":{"k":"other"}})", changed, "key 'k' in section 'a'"},
      {"a key that is gone", "sed -i s/=1/=x/", R"({"a":{"k":null}})", changed, "key 'k' in section 'a'"},
      {"a key that came", "sed -i s/^l=2/new=x/", R"({"a":{"new":"other"}})", "- [a] l=2\n+ [a] new=x\n",
       "key 'new' in section 'a'"},
      {"a deleted section", "sed -i -e '/.b./d' -e /k=3/d", R"({"b":{"new":"1"}})", "- [b] k=3\n",
       "key 'new' in section 'b'"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    back_end->DeleteAll();
    back_end->WriteJson(R"({"a":{"k":"1","l":"2"},"b":{"k":"3"}})");
    int reads = 0;
    registry.OnCall([&](const std::string& call) {
      if (call == "ReadAllJson" && ++reads == 2) {
        back_end->WriteJson(row.others);
      }
    });
    const Outcome outcome = EditWith(row.editor);
    registry.OnCall({});
    if (row.culprit == nullptr) {
      EXPECT_EQ(outcome, Prints(row.output));
      EXPECT_EQ(back_end.store->Text(), "[a]\nk=x\nl=other\n[b]\nk=3\n");
      continue;
    }
    const std::vector<std::string> kept = LeftFiles();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(outcome,
              (Outcome{10, row.output,
                       std::string("ledgerctl: ") + row.culprit +
                           " has changed meanwhile; nothing changed\nYour text is kept in " + kept[0] + "\n"}));
    std::filesystem::remove(kept[0]);
    EXPECT_EQ(back_end.store->Text().find('x'), std::string::npos);
  }
}

TEST_F(EditVerb, KeepsATextThatItCannotTake) {
  struct Row {
    const char* editor;
    int status;
    const char* reason;
    std::string output;
    std::vector<std::string> arguments = {"edit"};
  };
  const Row rows[] = {
      {"sed -i \"s/=1/='/\"", 10, "line 7: the quote is not closed", ""},
      {"sed -i s/^k/gr\xc3\xb6n/", 3, "line 7: invalid name 'gr\xc3\xb6n': only ASCII is allowed", ""},
      {"sed -i s/^k=3/\"'[k'=3\"/", 10,
       "lost at a restart: key '[k' in section 'b' (begins with \"[\")\nNothing changed. Use --force to accept the "
       "loss.",
       ""},
      {"f() { sed -i s/=1/=$(head -c 17000 /dev/zero | tr '\\0' x)/ \"$1\"; }; f", 5,
       "registry full (16383 bytes); nothing changed", "- [a] k=1\n+ [a] k=" + std::string(17000, 'x') + "\n"},
      {"sed -i s/=1/=\\\\xff/", 10, "line 7: the value of key 'k' in section 'a' is not UTF-8", ""},
      {"sed -i '$a[A]\\nk=x'",
       10,
       "line 8: this is section 'a', but only section 'b' can be changed",
       "",
       {"edit", "B"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.reason);
    const Outcome outcome = EditWith(row.editor, row.arguments);
    const std::vector<std::string> kept = LeftFiles();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(outcome, (Outcome{row.status, row.output,
                                std::string("ledgerctl: ") + row.reason + "\nYour text is kept in " + kept[0] + "\n"}));
    EXPECT_EQ(std::filesystem::status(kept[0]).permissions(), std::filesystem::perms(0600));
    std::filesystem::remove(kept[0]);
    EXPECT_EQ(back_end.FlushedText(), "[a]\nk=1\nl=2\n[b]\nk=3\n");
  }
}

TEST_F(EditVerb, GivesUpWhenTheEditorFails) {
  for (const char* editor : {"false", "/nonexistent/editor", "sed -i s/1/x/ /nonexistent"}) {
    SCOPED_TRACE(editor);
    const Outcome outcome = EditWith(std::string(editor) + " 2>/dev/null");
    EXPECT_EQ(outcome, (Outcome{10, "", "ledgerctl: the editor failed; nothing changed\n"}));
    EXPECT_TRUE(LeftFiles().empty());
  }
  const Outcome without_text = EditWith("rm");
  EXPECT_EQ(without_text.status, 10);
  EXPECT_EQ(without_text.error.find("kept"), std::string::npos) << without_text;
}

TEST_F(EditVerb, WarnsOfWhatARestartLosesIfForced) {
  EXPECT_EQ(EditWith("sed -i s/^k=3/\"'[k'=3\"/", {"edit", "--force"}),
            (Outcome{0, "+ [b] '[k'=3\n- [b] k=3\n",
                     "ledgerctl: warning: lost at a restart: key '[k' in section 'b' (begins with \"[\")\n"}));
}

TEST_F(EditVerb, AsksOnATerminal) {
  const std::string question = "What now? (e)dit again, (q)uit and keep the text: ";
  const std::string mistake = "ledgerctl: line 7: the quote is not closed\n" + question;
  const std::string conflict = "ledgerctl: key 'k' in section 'a' has changed meanwhile; nothing changed\n" + question;
  struct Row {
    const char* name;
    const char* editor;
    const char* others;  // the value meanwhile
    const char* answers;
    int status;
    std::string shown;
  };
  const Row rows[] = {
      {"another answer", "sed -i \"s/=1$/='/\"", "1", "x\n\nquit\n", 10,
       mistake + question + question + "ledgerctl: nothing changed\n"},
      {"corrects the mistake", "sed -i \"s/='$/=x/;s/=1$/='/\"", "1", "e\n", 0, mistake},
      {"the editor fails then", "f() { grep -q =1 \"$1\" && sed -i \"s/=1$/='/\" \"$1\"; }; f", "1", "e\n", 10,
       mistake + "ledgerctl: the editor failed; nothing changed\n"},
      {"change of another", "sed -i s/=1/=x/", "other", "e\nq\n", 10,
       conflict + conflict + "ledgerctl: nothing changed\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    back_end->Write("a", "k", "1");
    int reads = 0;
    registry.OnCall([&](const std::string& call) {
      if (call == "ReadAllJson" && ++reads > 1) {
        back_end->Write("a", "k", row.others);
      }
    });
    ::setenv("EDITOR", row.editor, 1);
    const Answers answers(row.answers);
    const MemoryFile output;
    EXPECT_EQ(RunOn(registry, {"edit"}, output.Fd(), answers.Fd()), row.status);
    const std::vector<std::string> kept = LeftFiles();
    ASSERT_EQ(kept.size(), row.status == 0 ? 0u : 1u);
    EXPECT_EQ(answers.Shown(), row.shown + (kept.empty() ? "" : "Your text is kept in " + kept[0] + "\n"));
    for (const std::string& path : kept) {
      std::filesystem::remove(path);
    }
  }
}

TEST_F(EditVerb, AsksNothingWithoutATerminal) {
  const std::string editor = "sed -i \"s/='$/=x/;s/=1$/='/\"";
  const Answers answers("e\n");
  EXPECT_EQ(EditWith(editor).status, 10);
  const StandardInput input("e\n");
  const MemoryFile output;
  EXPECT_EQ(RunOn(registry, {"edit"}, output.Fd(), answers.Fd()), 10);
  EXPECT_EQ(answers.Shown().find("What now?"), std::string::npos);
}

TEST_F(EditVerb, WarnsOfNamesThatNobodyCanReach) {
  BackEnd edited("[Net]\nk=1\n[s]\nK=1\nk=1\n[t]\nk=1\n");
  ::setenv("EDITOR", "sed -i '/^.s/,/^$/d'", 1);
  EXPECT_EQ(RunOn(*edited.registry, {"edit"}),
            (Outcome{0, "- [s] k=1\n",
                     "ledgerctl: warning: out of reach, not lower-case ASCII: section 'Net'\n"
                     "ledgerctl: warning: out of reach, not lower-case ASCII: key 'K' in section 's'\n"}));
  EXPECT_EQ(edited.FlushedText(), "[Net]\nk=1\n[t]\nk=1\n");
}

}  // namespace
}  // namespace test_client
