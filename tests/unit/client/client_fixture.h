// Runs command lines of the client on a registry in this process, and records the calls that they make.
#pragma once

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/mman.h>
#include <termios.h>
#include <unistd.h>

#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "client/failure.h"
#include "client/program.h"
#include "tests/unit/registry/back_end_fixture.h"

namespace test_client {

using Words = std::vector<std::string>;
using Calls = std::vector<std::string>;

/// Splits a command line at its spaces.
inline Words Split(const std::string& line) {
  std::istringstream words(line);
  return {std::istream_iterator<std::string>(words), {}};
}

/// A file in memory.
class MemoryFile {
public:
  explicit MemoryFile(const std::string& text = "") : m_fd(::memfd_create("test", MFD_CLOEXEC)) {
    EXPECT_EQ(::pwrite(m_fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  }
  ~MemoryFile() { ::close(m_fd); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  int Fd() const { return m_fd; }

  std::string Text() const {
    std::string text(static_cast<std::size_t>(::lseek(m_fd, 0, SEEK_END)), '\0');
    EXPECT_EQ(::pread(m_fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    return text;
  }

private:
  int m_fd;
};

/// A terminal without echo and with colours, on which `typed` was typed in advance.
class Terminal {
public:
  explicit Terminal(unsigned short columns, const std::string& typed = "") {
    winsize size{};
    size.ws_col = columns;
    EXPECT_EQ(::openpty(&m_master, &m_slave, nullptr, nullptr, &size), 0);
    termios settings{};
    ::tcgetattr(m_slave, &settings);
    settings.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    settings.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    ::tcsetattr(m_slave, TCSANOW, &settings);
    EXPECT_EQ(::write(m_master, typed.data(), typed.size()), static_cast<ssize_t>(typed.size()));
    ::setenv("TERM", "xterm", 1);
    ::unsetenv("NO_COLOR");
  }
  ~Terminal() {
    ::close(m_master);
    ::close(m_slave);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  int Fd() const { return m_slave; }

  /// Returns what was written to the terminal since the last call.
  std::string Shown() const {
    // The kernel passes output on in its own time. So waits for a last byte that no output has.
    EXPECT_EQ(::write(m_slave, "\x04", 1), 1);
    std::string shown;
    for (char c = 0; ::read(m_master, &c, 1) == 1 && c != '\x04';) {
      shown += c;
    }
    return shown;
  }

private:
  int m_master = -1;
  int m_slave = -1;
};

/// While it exists, standard input is `fd`.
class StandardInput {
public:
  explicit StandardInput(int fd) : m_saved(::dup(STDIN_FILENO)) { ::dup2(fd, STDIN_FILENO); }
  ~StandardInput() {
    ::dup2(m_saved, STDIN_FILENO);
    ::close(m_saved);
  }
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;

private:
  int m_saved;
};

/// Passes calls on to another registry and records their names.
class RecordingRegistry : public Registry {
public:
  explicit RecordingRegistry(Registry& target) : m_target(target) {}

  /// Returns the names since the last call of this function.
  Calls TakeCalls() { return std::exchange(m_calls, {}); }

  /// `hook` is called with the name before each call is passed on. An exception of `hook` is the answer to the call.
  void OnCall(std::function<void(const std::string& name)> hook) { m_hook = std::move(hook); }

  std::string ReadAllJson() override { return Record("ReadAllJson").ReadAllJson(); }
  void WriteJson(const std::string& registry) override { Record("WriteJson").WriteJson(registry); }
  std::string Read(const std::string& section, const std::string& key) override {
    return Record("Read").Read(section, key);
  }
  void Write(const std::string& section, const std::string& key, const std::string& value) override {
    Record("Write").Write(section, key, value);
  }
  bool KeyExists(const std::string& section, const std::string& key) override {
    return Record("KeyExists").KeyExists(section, key);
  }
  bool SectionExists(const std::string& section) override { return Record("SectionExists").SectionExists(section); }
  void DeleteKey(const std::string& section, const std::string& key) override {
    Record("DeleteKey").DeleteKey(section, key);
  }
  void DeleteSection(const std::string& section) override { Record("DeleteSection").DeleteSection(section); }
  void DeleteAll() override { Record("DeleteAll").DeleteAll(); }
  void SectionList(const SectionCallback& callback) override { Record("SectionList").SectionList(callback); }
  void KeyList(const std::string& section, const KeyCallback& callback) override {
    Record("KeyList").KeyList(section, callback);
  }
  void Flush() override { Record("Flush").Flush(); }

private:
  Registry& Record(const char* name) {
    m_calls.emplace_back(name);
    if (m_hook) {
      m_hook(name);
    }
    return m_target;
  }

  Registry& m_target;
  Calls m_calls;
  std::function<void(const std::string& name)> m_hook;
};

/// The exit status, standard output and standard error.
using Outcome = std::tuple<int, std::string, std::string>;

/// The outcome of a command that succeeds.
inline Outcome Prints(const std::string& output) { return {0, output, ""}; }

/// The outcome of a command that fails.
inline Outcome Fails(int status, const std::string& text) { return {status, "", "ledgerctl: " + text + "\n"}; }

/// Returns the outcome of a command that ends with the exception of `call`.
template <typename Call>
Outcome FailureOf(Call call) {
  try {
    call();
  } catch (...) {
    const ledgerctl::Failure failure = ledgerctl::CurrentFailure();
    return Fails(static_cast<int>(failure.Status()), failure.what());
  }
  return Prints("");
}

/// Runs a command line on any registry.
inline int RunOn(Registry& registry, const Words& words, int output, int error) {
  const std::shared_ptr<Registry> not_owned(std::shared_ptr<void>(), &registry);
  return ledgerctl::RunProgram(
      words, [&](const ledgerctl::CommandLine&) { return not_owned; }, output, error);
}

inline Outcome RunOn(Registry& registry, const Words& words, const std::string& input = "") {
  const MemoryFile input_file(input);
  const MemoryFile output;
  const MemoryFile error;
  const StandardInput standard_input(input_file.Fd());
  const int status = RunOn(registry, words, output.Fd(), error.Fd());
  return {status, output.Text(), error.Text()};
}

class ClientTest : public testing::Test {
protected:
  explicit ClientTest(const std::string& text = "", std::uint32_t capacity = 16383)
      : back_end(text, capacity), registry(*back_end.registry) {}

  Outcome Run(const Words& words, const std::string& input = "") { return RunOn(registry, words, input); }

  BackEnd back_end;
  RecordingRegistry registry;
};

}  // namespace test_client
