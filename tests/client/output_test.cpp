#include "client/output.h"

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <cstdlib>

#include "client/exit_status.h"
#include "lib/platform/posix_helpers.h"
#include "tests/client/client_fixture.h"

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

  /// What is waiting; at least one byte must be.
  std::string Take() const {
    char buffer[4096];
    const ssize_t n = ::read(m_reader, buffer, sizeof buffer);
    return std::string(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
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
  const Terminal terminal(132);
  Output output(terminal.Fd());
  EXPECT_TRUE(output.IsTerminal());
  EXPECT_EQ(output.Columns(), 132u);
  output.WriteColoured(Colour::Green, "a");
  output.Flush();
  EXPECT_EQ(terminal.Take(), "\033[32ma\033[0m");

  ::setenv("NO_COLOR", "1", 1);
  Output plain(terminal.Fd());
  plain.WriteColoured(Colour::Green, "a");
  plain.Flush();
  EXPECT_EQ(terminal.Take(), "a");
  ::unsetenv("NO_COLOR");

  ::setenv("TERM", "dumb", 1);
  Output dumb(terminal.Fd());
  dumb.WriteColoured(Colour::Green, "a");
  dumb.Flush();
  EXPECT_EQ(terminal.Take(), "a");
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
  std::string Shown(const std::vector<std::string>& arguments) {
    const Terminal terminal(80);
    const MemoryFile error;
    EXPECT_EQ(RunOn(arguments, terminal.Fd(), error.Fd()), 0) << error.Text();
    return terminal.Take();
  }
};

TEST_F(TerminalTest, GetsNoNameThatCouldTakeItOver) {
  back_end->Write("a\033[2Jb", "k", "v");
  back_end->Write("plain", "k", "v");
  EXPECT_EQ(Shown({"list"}), "$'a\\x1b[2jb'\r\nplain\r\n");
}

TEST_F(TerminalTest, ShowsHeadersAndKeysInColours) {
  back_end->Write("s", "k", "v");
  EXPECT_EQ(Shown({"show"}), "\033[1m[s]\033[0m\r\n\033[34mk\033[0m=v\r\n");
}

}  // namespace
}  // namespace ledgerctl
