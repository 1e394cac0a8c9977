#include "lib/platform/trace.h"

#include <pty.h>
#include <sys/wait.h>

#include "lib/platform/posix_helpers.h"
#include "tests/unit/platform/platform_test.h"

using namespace test_platform;

namespace {

// Works before main() only if the sink needs no construction at run time.
const bool g_emitted_before_main = [] {
  StderrSink().Emit("");
  return true;
}();

// Standard error is a file with a buffer, which shows what has been flushed, and its drains are recorded. Only for
// children, because the stream keeps its buffer.
class BufferedStderr : boost::noncopyable {
public:
  explicit BufferedStderr(const TempDir& dir) : m_dir(dir), m_saved(::dup(STDERR_FILENO)) {
    ::dup2(Open(dir / "stderr", O_WRONLY | O_CREAT, 0600).Get(), STDERR_FILENO);
    static char buffer[BUFSIZ];
    std::setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
  }
  ~BufferedStderr() {
    std::fflush(stderr);
    ::dup2(m_saved.Get(), STDERR_FILENO);
  }

  std::string Written() const { return ReadTextFile(m_dir / "stderr"); }

  /// Returns the descriptors that have been drained.
  std::string Drained() const { return ReadTextFile(m_dir / "drains"); }

private:
  const TempDir& m_dir;
  const FileDescriptor m_saved;
  const FileDescriptor m_record = Open(m_dir / "drains", O_RDWR | O_CREAT, 0600);
  const RecordedDrains m_drains{m_record.Get()};
};

}  // namespace

TEST(StderrTrace, WritesAndDrainsStandardErrorInFlushAndInItsDestructor) {
  const TempDir dir;
  EXPECT_IN_CHILD({
    const BufferedStderr err(dir);
    {
      StderrTrace trace;
      trace.Emit("100%s\n");
      trace.Emit("");
      EXPECT_EQ(err.Written(), "");
      trace.Flush();
      EXPECT_EQ(err.Written(), "100%s\n");
      EXPECT_EQ(err.Drained(), "2");
      sigset_t blocked;
      ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
      EXPECT_EQ(::sigismember(&blocked, SIGTTOU), 0) << "it stays blocked after the drain";
      trace.Emit("no newline");
      EXPECT_EQ(err.Drained(), "2");
    }
    EXPECT_EQ(err.Written(), "100%s\nno newline");
    EXPECT_EQ(err.Drained(), "22");
  });
}

// A shell with job control starts "ledgerd -d &" in such a group.
TEST(StderrTrace, IsDrainedFromABackgroundProcessGroupOfItsTerminal) {
  int terminal = -1;
  const pid_t shell = ::forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(shell, 0);
  if (shell == 0) {
    const pid_t background = ::fork();
    if (background == 0) {
      ::setpgid(0, 0);
      { StderrTrace().Emit("text"); }
      ::_exit(0);
    }
    ::setpgid(background, background);
    int status = 0;
    ::waitpid(background, &status, WUNTRACED);
    ::kill(background, SIGKILL);
    ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
  }
  const FileDescriptor master(terminal);
  std::string text;
  // Fails after the last process has closed the terminal.
  for (char byte; ::read(master.Get(), &byte, 1) == 1;) {
    text += byte;
  }
  int status = 0;
  ASSERT_EQ(::waitpid(shell, &status, 0), shell);
  EXPECT_EQ(text, "text");
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "stopped instead of draining";
}

TEST(OptionalTrace, HasASwitchThatEmitIgnores) {
  CapturedStderr captured;
  OptionalTrace trace(false);
  EXPECT_FALSE(trace.IsEnabled());
  trace.Emit("off");
  EXPECT_EQ(captured.Take(), "off");
  trace.SetEnabled(true);
  EXPECT_TRUE(trace.IsEnabled());
  trace.SetEnabled(false);
  EXPECT_FALSE(trace.IsEnabled());
  EXPECT_TRUE(OptionalTrace(true).IsEnabled());
}

TEST(FileTrace, WritesToItsFileAndClosesItButFlushesStandardError) {
  const TempDir dir;
  EXPECT_IN_CHILD({
    const BufferedStderr err(dir);
    const int descriptors = CountDescriptors();
    {
      FileTrace trace(std::fopen((dir / "trace").c_str(), "we"));
      EXPECT_EQ(CountDescriptors(), descriptors + 1);
      trace.Emit("100%s\n");
      trace.Emit("no newline");
      std::fputs("flushed", stderr);
      trace.Flush();
      EXPECT_EQ(ReadTextFile(dir / "trace"), "");
      EXPECT_EQ(err.Written(), "flushed");
      EXPECT_EQ(err.Drained(), "");
    }
    EXPECT_EQ(ReadTextFile(dir / "trace"), "100%s\nno newline");
    EXPECT_EQ(CountDescriptors(), descriptors);
  });
}

TEST(StderrSink, IsOneSinkOnStandardError) {
  CapturedStderr captured;
  EXPECT_TRUE(g_emitted_before_main);
  EXPECT_EQ(&StderrSink(), &StderrSink());
  StderrSink().Emit("text\n");
  EXPECT_EQ(captured.Take(), "text\n");
}

TEST(StderrSink, DrainsStandardErrorAtTheEndOfTheProcess) {
  const TempDir dir;
  EXPECT_EXIT(
      {
        new RecordedDrains(Open(dir / "drains", O_RDWR | O_CREAT, 0600).Release());  // outlives the sink
        std::exit(0);
      },
      testing::ExitedWithCode(0), testing::Eq(""));
  EXPECT_EQ(ReadTextFile(dir / "drains"), "2");
}
