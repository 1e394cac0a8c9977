#include "client/output.h"

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "client/failure.h"
#include "lib/platform/posix_helpers.h"
#include "tests/unit/client/client_fixture.h"
#include "tests/unit/support/forked_child.h"

namespace ledgerctl {
namespace {

using test_client::MemoryFile;

/// A terminal whose output is read at the other end.
class Terminal {
public:
  explicit Terminal(unsigned short columns) {
    winsize size{};
    size.ws_col = columns;
    EXPECT_EQ(::openpty(&m_reader, &m_writer, nullptr, nullptr, &size), 0);
    ::setenv("TERM", "xterm", 1);
    ::unsetenv("NO_COLOR");
  }
  ~Terminal() {
    ::close(m_reader);
    ::close(m_writer);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  int Fd() const { return m_writer; }

  /// All that was written. Hangs up.
  std::string Take() {
    ::close(std::exchange(m_writer, -1));
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = ::read(m_reader, buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<std::size_t>(n));
    }
    return text;
  }

private:
  int m_reader = -1;
  int m_writer = -1;
};

TEST(Output, CollectsUntilItIsFlushed) {
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
  for (const Row& row : rows) {
    Terminal terminal(132);
    row.terminal != nullptr ? ::setenv("TERM", row.terminal, 1) : ::unsetenv("TERM");
    row.no_colour != nullptr ? ::setenv("NO_COLOR", row.no_colour, 1) : ::unsetenv("NO_COLOR");
    Output output(terminal.Fd());
    EXPECT_TRUE(output.IsTerminal());
    EXPECT_EQ(output.Columns(), 132u);
    output.WriteColoured(Colour::Green, "a");
    output.Flush();
    EXPECT_EQ(terminal.Take(), row.text);
  }
  ::unsetenv("NO_COLOR");
}

TEST(Output, TakesUnknownWidthsAs80) {
  const Terminal terminal(0);
  EXPECT_EQ(Output(terminal.Fd()).Columns(), 80u);
  const MemoryFile file;
  EXPECT_EQ(Output(file.Fd()).Columns(), 80u);
}

TEST(Output, TellsOfAFullDisk) {
  const bramble::FileDescriptor full = bramble::Open("/dev/full", O_WRONLY);
  Output output(full.Get());
  output.Write("a");
  try {
    output.Flush();
    ADD_FAILURE() << "nothing thrown";
  } catch (const Failure& e) {
    EXPECT_EQ(e.Status(), ExitStatus::Local);
    EXPECT_STREQ(e.what(), "standard output: No space left on device");
  }
  EXPECT_NO_THROW(output.Flush());
}

TEST(Output, WritesTheRestOrFails) {
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

TEST(Messages, AreSilencedButForErrors) {
  const MemoryFile file;
  const Messages messages(file.Fd(), false);
  messages.Error("a");
  messages.Warning("b");
  messages.Note("c");
  EXPECT_EQ(file.Text(), "ledgerctl: a\nledgerctl: warning: b\nc\n");

  const MemoryFile quiet_file;
  const Messages quiet(quiet_file.Fd(), true);
  quiet.Error("a");
  quiet.Warning("b");
  quiet.Note("c");
  EXPECT_EQ(quiet_file.Text(), "ledgerctl: a\n");
}

class TerminalTest : public test_client::ClientTest {
protected:
  std::string Shown(const std::vector<std::string>& arguments, int status = 0) {
    Terminal terminal(20);
    const MemoryFile error;
    EXPECT_EQ(test_client::RunOn(registry, arguments, terminal.Fd(), error.Fd()), status);
    EXPECT_EQ(error.Text(), "");
    return terminal.Take();
  }
};

TEST_F(TerminalTest, GetsNoNameThatCouldTakeItOver) {
  back_end->Write("a\033[2Jb", "k", "v");
  back_end->Write("plain", "k", "v");
  EXPECT_EQ(Shown({"list"}), "$'a\\x1b[2jb'\r\nplain\r\n");
  EXPECT_EQ(Shown({"-0", "list"}), std::string("a\033[2jb\0plain\0", 13));
}

TEST_F(TerminalTest, ShowsBarsThatAreNotTooShort) {
  back_end->Write("a", "k", std::string(16383 - 7, 'x'));
  EXPECT_EQ(Shown({"usage"}), "16383 of 16383 bytes used (100 %), 0 free\r\n 16383  a  \033[32m##########\033[0m\r\n");
}

TEST_F(TerminalTest, ShowsPartsInColours) {
  back_end->Write("s", "k", "v");
  EXPECT_EQ(Shown({"show"}), "\033[1m[s]\033[0m\r\n\033[34mk\033[0m=v\r\n");
  const test_client::StandardInput input(R"({"s":{"k":"w"}})");
  EXPECT_EQ(Shown({"diff", "-"}, 1), "\033[31m- [s] k=v\033[0m\r\n\033[32m+ [s] k=w\033[0m\r\n");
}

}  // namespace
}  // namespace ledgerctl
