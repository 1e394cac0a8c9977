#include "client/output.h"

#include <fcntl.h>

#include <cstdlib>

#include "lib/platform/posix_helpers.h"
#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/forked_child.h"

namespace ledgerctl {
namespace {

using test_client::MemoryFile;
using test_client::Terminal;

TEST(Output, IsWrittenWhenItIsFlushed) {
  const MemoryFile file;
  Output output(file.Fd());
  output.Write("a");
  output.WriteColoured(Colour::Red, "b");
  EXPECT_EQ(file.Text(), "");
  output.Flush();
  EXPECT_EQ(file.Text(), "ab");
  output.Write(std::string(100000, 'x'));
  EXPECT_EQ(file.Text().size(), 100002u);
}

TEST(Output, HasColoursOnATerminalThatKnowsThem) {
  struct Row {
    const char* terminal;  // null if TERM is not set
    const char* no_colour;
    const char* text;
  };
  const Row rows[] = {{"xterm", nullptr, "\033[32ma\033[0m"},
                      {"xterm", "1", "a"},
                      {"xterm", "", "\033[32ma\033[0m"},
                      {"dumb", nullptr, "a"},
                      {nullptr, nullptr, "a"}};
  const Terminal terminal(132);
  for (const Row& row : rows) {
    row.terminal != nullptr ? ::setenv("TERM", row.terminal, 1) : ::unsetenv("TERM");
    row.no_colour != nullptr ? ::setenv("NO_COLOR", row.no_colour, 1) : ::unsetenv("NO_COLOR");
    Output output(terminal.Fd());
    output.WriteColoured(Colour::Green, "a");
    output.Flush();
    EXPECT_EQ(terminal.Shown(), row.text);
  }
}

TEST(Output, HasTheWidthOfTheTerminalOr80Columns) {
  const MemoryFile file;
  EXPECT_EQ(Output(Terminal(132).Fd()).Columns(), 132u);
  EXPECT_EQ(Output(Terminal(0).Fd()).Columns(), 80u);
  EXPECT_EQ(Output(file.Fd()).Columns(), 80u);
}

TEST(Output, ReportsAFullDiskOnce) {
  const bramble::FileDescriptor full = bramble::Open("/dev/full", O_WRONLY);
  Output output(full.Get());
  output.Write("a");
  EXPECT_EQ(test_client::FailureOf([&] { output.Flush(); }),
            test_client::Fails(10, "standard output: No space left on device"));
  EXPECT_NO_THROW(output.Flush());
}

TEST(Output, ReportsThatOnlyAPartIsWritten) {
  EXPECT_EQ(test_support::RunInChild([]() -> std::string {
              const MemoryFile file;
              ::signal(SIGXFSZ, SIG_IGN);
              test_support::LimitResource(RLIMIT_FSIZE, 1);
              Output output(file.Fd());
              output.Write("ab");
              output.Flush();
              return "written";
            }),
            "threw: standard output: File too large");
}

TEST(Messages, AreOnlyErrorsIfQuiet) {
  for (const auto& [quiet, text] :
       {std::pair(false, "ledgerctl: a\nledgerctl: warning: b\nc\n"), {true, "ledgerctl: a\n"}}) {
    const MemoryFile file;
    const Messages messages(file.Fd(), quiet);
    messages.Error("a");
    messages.Warning("b");
    messages.Note("c");
    EXPECT_EQ(file.Text(), text);
  }
}

class OnATerminal : public test_client::ClientTest {
protected:
  std::string Shown(const test_client::Words& words, int status = 0) {
    const Terminal terminal(20);
    const MemoryFile error;
    EXPECT_EQ(test_client::RunOn(registry, words, terminal.Fd(), error.Fd()), status);
    EXPECT_EQ(error.Text(), "");
    return terminal.Shown();
  }
};

TEST_F(OnATerminal, ListQuotesControlCharacters) {
  back_end->Write("a\033[2Jb", "k", "v");
  back_end->Write("plain", "k", "v");
  EXPECT_EQ(Shown({"list"}), "$'a\\x1b[2jb'\nplain\n");
  EXPECT_EQ(Shown({"-0", "list"}), std::string("a\033[2jb\0plain\0", 13));
}

TEST_F(OnATerminal, UsagePrintsBarsOfAtLeastTenColumns) {
  back_end->Write("a", "k", std::string(16383 - 7, 'x'));
  EXPECT_EQ(Shown({"usage"}), "16383 of 16383 bytes used (100 %), 0 free\n 16383  a  \033[32m##########\033[0m\n");
}

TEST_F(OnATerminal, NamesAndChangesHaveColours) {
  back_end->Write("s", "k", "v");
  EXPECT_EQ(Shown({"show"}), "\033[1m[s]\033[0m\n\033[34mk\033[0m=v\n");
  const MemoryFile document(R"({"s":{"k":"w"}})");
  const test_client::StandardInput input(document.Fd());
  EXPECT_EQ(Shown({"diff", "-"}, 1), "\033[31m- [s] k=v\033[0m\n\033[32m+ [s] k=w\033[0m\n");
}

}  // namespace
}  // namespace ledgerctl
