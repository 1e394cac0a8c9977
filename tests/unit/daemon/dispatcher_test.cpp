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
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "lib/platform/posix_helpers.h"
#include "tests/unit/platform/bounded_wait.h"
#include "tests/unit/platform/threads.h"
#include "tests/unit/support/temp_dir.h"
#include "tests/unit/support/throws.h"

namespace {

using test_platform::Sleeps;
using test_platform::WaitUntil;

// The other end of a connection. It accepts the connection and sends nothing.
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

  void Accept() { m_connection = bramble::FileDescriptor(::accept(m_listener.Get(), nullptr, nullptr)); }
  void HangUp() { m_connection = bramble::FileDescriptor(); }

private:
  test_support::TempDir m_directory;
  bramble::FileDescriptor m_listener;
  bramble::FileDescriptor m_connection;
};

// Returns the descriptors that `make` opens.
template <typename Make>
std::vector<int> DescriptorsOf(Make make) {
  constexpr int kDescriptors = 256;
  std::vector<bool> was_open;
  for (int fd = 0; fd < kDescriptors; ++fd) {
    was_open.push_back(::fcntl(fd, F_GETFD) >= 0);
  }
  make();
  std::vector<int> opened;
  for (int fd = 0; fd < kDescriptors; ++fd) {
    if (!was_open[static_cast<std::size_t>(fd)] && ::fcntl(fd, F_GETFD) >= 0) {
      opened.push_back(fd);
    }
  }
  return opened;
}

class DispatcherTest : public testing::Test {
protected:
  DispatcherTest() {
    // The dispatcher of the program is never destroyed and does not close its pipe.
    for (const int fd : DescriptorsOf([this] { m_dispatcher.emplace(); })) {
      m_pipe.emplace_back(fd);
    }
    DBus::default_dispatcher = &*m_dispatcher;
    m_connection = std::make_unique<DBus::Connection>(("unix:path=" + m_peer.Path()).c_str());
    m_peer.Accept();
  }
  ~DispatcherTest() override { m_connection->disconnect(); }

  std::optional<Dispatcher> m_dispatcher;
  std::vector<bramble::FileDescriptor> m_pipe;
  SilentPeer m_peer;
  std::unique_ptr<DBus::Connection> m_connection;
};

// Unless it is 0, each wait of the dispatcher fails with it.
int g_poll_error = 0;

TEST_F(DispatcherTest, EndsTheLoopAtOnceIfLeaveWasCalledBefore) {
  EXPECT_FALSE(m_dispatcher->IsLeaving());
  m_dispatcher->leave();
  EXPECT_TRUE(m_dispatcher->IsLeaving());
  m_dispatcher->enter();
  EXPECT_FALSE(m_dispatcher->LostConnection());
  // More often than the pipe holds.
  for (int i = 0; i < 100000; ++i) {
    m_dispatcher->leave();
  }
  m_dispatcher->enter();
}

TEST_F(DispatcherTest, EndsTheLoopIfAnotherThreadCallsLeave) {
  std::thread leaver([this, looping = ::gettid()] {
    EXPECT_TRUE(WaitUntil([looping] { return Sleeps(looping); }));
    m_dispatcher->leave();
  });
  m_dispatcher->enter();
  leaver.join();
}

TEST_F(DispatcherTest, EndsTheLoopIfASignalHandlerCallsLeave) {
  static Dispatcher* dispatcher = nullptr;
  dispatcher = &*m_dispatcher;
  const auto old_handler = std::signal(SIGUSR1, [](int) { dispatcher->leave(); });
  std::thread sender([looping = ::pthread_self(), task = ::gettid()] {
    EXPECT_TRUE(WaitUntil([task] { return Sleeps(task); }));
    ::pthread_kill(looping, SIGUSR1);
  });
  m_dispatcher->enter();
  sender.join();
  std::signal(SIGUSR1, old_handler);
}

TEST_F(DispatcherTest, EndsTheLoopIfTheConnectionIsLost) {
  m_peer.HangUp();
  m_dispatcher->enter();
  EXPECT_TRUE(m_dispatcher->LostConnection());
  EXPECT_FALSE(m_dispatcher->IsLeaving());
}

TEST_F(DispatcherTest, ThrowsIfTheWaitFails) {
  g_poll_error = EAGAIN;
  test_platform::ExpectErrno(EAGAIN, "poll: Resource temporarily unavailable (11)",
                             [this] { m_dispatcher->do_iteration(); });
  g_poll_error = 0;
}

TEST(Dispatcher, OpensItsPipeAboveTheStandardStreamsAndClosesItOnExec) {
  EXPECT_EXIT(
      {
        for (int fd = 0; fd <= 2; ++fd) {
          ::close(fd);
        }
        const std::vector<int> pipe = DescriptorsOf([] { new Dispatcher; });
        const auto is_good = [](int fd) { return fd > 2 && (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; };
        ::_exit(pipe.size() == 2 && is_good(pipe[0]) && is_good(pipe[1]) ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace

// The linker's names for the double and for the original function.
extern "C" {

int __real_poll(pollfd* descriptors, nfds_t count, int timeout);

int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout) {
  if (g_poll_error != 0) {
    errno = g_poll_error;
    return -1;
  }
  return __real_poll(descriptors, count, timeout);
}

}  // extern "C"
