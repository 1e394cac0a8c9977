#include "daemon/dispatcher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "lib/platform/posix_helpers.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/threads.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/throws.h"

namespace {

// The other end of a connection: accepts it and never says a word.
class SilentPeer {
public:
  SilentPeer() : m_listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    Path().copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(m_listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(m_listener.Get(), 1), 0);
  }

  std::string Path() const { return m_directory / "peer"; }
  std::string Address() const { return "unix:path=" + Path(); }

  void Accept() { m_connection = bramble::FileDescriptor(::accept(m_listener.Get(), nullptr, nullptr)); }
  void HangUp() { m_connection = bramble::FileDescriptor(); }

private:
  test_support::TempDir m_directory;
  bramble::FileDescriptor m_listener;
  bramble::FileDescriptor m_connection;
};

// The flags of each descriptor, -1 for one that is not open.
std::vector<int> DescriptorFlags() {
  std::vector<int> flags;
  for (int fd = 0; fd < 256; ++fd) {
    flags.push_back(::fcntl(fd, F_GETFD));
  }
  return flags;
}

class DispatcherTest : public testing::Test {
protected:
  DispatcherTest() {
    const std::vector<int> after = DescriptorFlags();
    for (std::size_t fd = 0; fd < after.size(); ++fd) {
      if (after[fd] != m_before[fd]) {
        m_pipe.emplace_back(static_cast<int>(fd));
      }
    }
    DBus::default_dispatcher = &m_dispatcher;
    m_connection = std::make_unique<DBus::Connection>(m_peer.Address().c_str());
    m_peer.Accept();
  }
  ~DispatcherTest() override { m_connection->disconnect(); }

  const std::vector<int> m_before = DescriptorFlags();
  Dispatcher m_dispatcher;
  std::vector<bramble::FileDescriptor> m_pipe;  // which the program's dispatcher, never destroyed, keeps
  SilentPeer m_peer;
  std::unique_ptr<DBus::Connection> m_connection;
};

Dispatcher* g_dispatcher_for_signals = nullptr;

// Unless it is 0, each wait of the dispatcher fails with it.
int g_poll_error = 0;

TEST_F(DispatcherTest, LeaveBeforeEnterIsHonoured) {
  EXPECT_FALSE(m_dispatcher.IsLeaving());
  m_dispatcher.leave();
  EXPECT_TRUE(m_dispatcher.IsLeaving());
  m_dispatcher.enter();
  EXPECT_FALSE(m_dispatcher.LostConnection());
}

TEST_F(DispatcherTest, LeaveAnyNumberOfTimesNeitherBlocksNorThrows) {
  // More than a pipe holds.
  for (int i = 0; i < 100000; ++i) {
    m_dispatcher.leave();
  }
  m_dispatcher.enter();
  m_dispatcher.leave();
  m_dispatcher.enter();
}

TEST_F(DispatcherTest, LeaveFromAnotherThreadWakesTheLoop) {
  std::thread leaver([this, looping = ::gettid()] {
    EXPECT_TRUE(test_platform::WaitUntil([looping] { return test_platform::Sleeps(looping); }));
    m_dispatcher.leave();
  });
  m_dispatcher.enter();
  leaver.join();
}

TEST_F(DispatcherTest, LeaveFromASignalHandlerWakesTheLoop) {
  g_dispatcher_for_signals = &m_dispatcher;
  const auto old_handler = std::signal(SIGUSR1, [](int) { g_dispatcher_for_signals->leave(); });
  std::thread sender([looping = ::pthread_self(), task = ::gettid()] {
    EXPECT_TRUE(test_platform::WaitUntil([task] { return test_platform::Sleeps(task); }));
    ::pthread_kill(looping, SIGUSR1);
  });
  m_dispatcher.enter();
  sender.join();
  std::signal(SIGUSR1, old_handler);
}

TEST_F(DispatcherTest, LostConnectionEndsTheLoop) {
  m_peer.HangUp();
  m_dispatcher.enter();
  EXPECT_TRUE(m_dispatcher.LostConnection());
  EXPECT_FALSE(m_dispatcher.IsLeaving());
}

TEST_F(DispatcherTest, WaitThatFailsIsThrown) {
  g_poll_error = EAGAIN;
  test_platform::ExpectErrno(EAGAIN, "poll: Resource temporarily unavailable (11)",
                             [this] { m_dispatcher.do_iteration(); });
  g_poll_error = 0;
}

TEST(Dispatcher, ItsPipeIsClosedOnExecAndNoStandardStream) {
  EXPECT_EXIT(
      {
        for (int fd = 0; fd <= 2; ++fd) {
          ::close(fd);
        }
        const std::vector<int> before = DescriptorFlags();
        const Dispatcher dispatcher;
        const std::vector<int> after = DescriptorFlags();
        int pipe_ends = 0;
        bool good = true;
        for (std::size_t fd = 0; fd < after.size(); ++fd) {
          if (after[fd] != before[fd]) {
            ++pipe_ends;
            good = good && fd > 2 && (after[fd] & FD_CLOEXEC) != 0;
          }
        }
        ::_exit(good && pipe_ends == 2 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace

// The linker's names for the double and for the function that it replaces.
extern "C" {

int __real_poll(pollfd* descriptors, nfds_t count, int timeout);

int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout);
int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout) {
  if (g_poll_error != 0) {
    errno = g_poll_error;
    return -1;
  }
  return __real_poll(descriptors, count, timeout);
}

}  // extern "C"
