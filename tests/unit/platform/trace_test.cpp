#include "lib/platform/trace.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "lib/platform/posix_helpers.h"
#include "tests/unit/support/captured_stderr.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/wrapped_calls.h"

using bramble::FileDescriptor;
using bramble::FileTrace;
using bramble::OptionalTrace;
using bramble::StderrTrace;
using test_support::CapturedStderr;
using test_support::ReadTextFile;
using test_support::TempDir;
using wrapped_calls::RecordedDrains;

namespace {

// Emitting before main works only while the sink needs no construction at run time.
const bool g_emitted_before_main = [] {
  bramble::StderrSink().Emit("");
  return true;
}();

// Standard error as a file with a buffer, so that what is flushed can be told from what is not. For children, as not
// all of it is undone at the end: the stream keeps a buffer.
class BufferedStderr {
public:
  explicit BufferedStderr(const TempDir& dir) : m_path(dir / "stderr"), m_saved(::dup(STDERR_FILENO)) {
    const FileDescriptor file = bramble::Open(m_path, O_WRONLY | O_CREAT, 0600);
    ::dup2(file.Get(), STDERR_FILENO);
    static char buffer[BUFSIZ];  // as long as the process: the stream keeps it
    std::setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
  }
  ~BufferedStderr() {
    std::fflush(stderr);
    ::dup2(m_saved.Get(), STDERR_FILENO);
  }
  BufferedStderr(const BufferedStderr&) = delete;
  BufferedStderr& operator=(const BufferedStderr&) = delete;

  std::string Written() const { return ReadTextFile(m_path); }

private:
  std::string m_path;
  FileDescriptor m_saved;
};

int OpenDrainRecord(const TempDir& dir) {
  return bramble::Open(dir / "drains", O_RDWR | O_CREAT | O_TRUNC, 0600).Release();
}

}  // namespace

TEST(StderrTrace, WritesTheTextAsItStands) {
  CapturedStderr captured;
  {
    StderrTrace trace;
    trace.Emit("100%s\n");
    trace.Emit("");
    trace.Emit("no line feed");
    EXPECT_EQ(captured.Take(), "100%s\nno line feed");
  }
  EXPECT_EQ(captured.Take(), "");
}

TEST(StderrTrace, FlushWritesAndDrainsStandardError) {
  const TempDir dir;
  EXPECT_IN_CHILD({
    const BufferedStderr err(dir);
    const RecordedDrains drains(OpenDrainRecord(dir));
    StderrTrace trace;
    trace.Emit("text");
    EXPECT_EQ(err.Written(), "");
    trace.Flush();
    EXPECT_EQ(err.Written(), "text");
    EXPECT_EQ(ReadTextFile(dir / "drains"), "2");
    sigset_t blocked;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(::sigismember(&blocked, SIGTTOU), 0) << "stays blocked after the drain";
  });
}

TEST(StderrTrace, DestructorWritesAndDrainsStandardError) {
  const TempDir dir;
  EXPECT_IN_CHILD({
    const BufferedStderr err(dir);
    const RecordedDrains drains(OpenDrainRecord(dir));
    {
      StderrTrace trace;
      trace.Emit("text");
      EXPECT_EQ(err.Written(), "");
      EXPECT_EQ(ReadTextFile(dir / "drains"), "");
    }
    EXPECT_EQ(err.Written(), "text");
    EXPECT_EQ(ReadTextFile(dir / "drains"), "2");
  });
}

// A shell with job control puts "ledgerd -d &" into such a group.
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
  // Ends with an error when nobody has the terminal open any more.
  for (char byte; ::read(master.Get(), &byte, 1) == 1;) {
    text += byte;
  }
  int status = 0;
  ASSERT_EQ(::waitpid(shell, &status, 0), shell);
  EXPECT_EQ(text, "text");
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "stopped instead of draining";
}

TEST(OptionalTrace, KeepsItsSwitchAndAlwaysWrites) {
  CapturedStderr captured;
  OptionalTrace off(false);
  EXPECT_FALSE(off.IsEnabled());
  off.Emit("off");
  EXPECT_EQ(captured.Take(), "off");
  off.SetEnabled(true);
  EXPECT_TRUE(off.IsEnabled());
  off.SetEnabled(false);
  EXPECT_FALSE(off.IsEnabled());

  const OptionalTrace on(true);
  EXPECT_TRUE(on.IsEnabled());
}

TEST(FileTrace, WritesToItsFileAndClosesIt) {
  const TempDir dir;
  const int descriptors = test_platform::CountDescriptors();
  {
    FileTrace trace(std::fopen((dir / "trace").c_str(), "we"));
    EXPECT_EQ(test_platform::CountDescriptors(), descriptors + 1);
    trace.Emit("100%s\n");
    trace.Emit("no line feed");
  }
  EXPECT_EQ(ReadTextFile(dir / "trace"), "100%s\nno line feed");
  EXPECT_EQ(test_platform::CountDescriptors(), descriptors);
}

TEST(FileTrace, FlushesStandardErrorInsteadOfItsFile) {
  const TempDir dir;
  EXPECT_IN_CHILD({
    const BufferedStderr err(dir);
    const RecordedDrains drains(OpenDrainRecord(dir));
    FileTrace trace(std::fopen((dir / "trace").c_str(), "we"));
    trace.Emit("kept");
    std::fputs("flushed", stderr);
    trace.Flush();
    EXPECT_EQ(ReadTextFile(dir / "trace"), "");
    EXPECT_EQ(err.Written(), "flushed");
    EXPECT_EQ(ReadTextFile(dir / "drains"), "");
  });
}

TEST(StderrSink, IsOneSinkOnStandardError) {
  CapturedStderr captured;
  EXPECT_TRUE(g_emitted_before_main);
  EXPECT_EQ(&bramble::StderrSink(), &bramble::StderrSink());
  bramble::StderrSink().Emit("text\n");
  EXPECT_EQ(captured.Take(), "text\n");
}

TEST(StderrSink, DrainsStandardErrorWhenTheProcessEnds) {
  const TempDir dir;
  EXPECT_EXIT(
      {
        new RecordedDrains(OpenDrainRecord(dir));  // outlives the sink
        std::exit(0);
      },
      testing::ExitedWithCode(0), testing::Eq(""));
  EXPECT_EQ(ReadTextFile(dir / "drains"), "2");
}
