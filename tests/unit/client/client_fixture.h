// The client as a whole, on a registry in this process: what it is given, what it prints, what it calls.
#pragma once

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/mman.h>
#include <termios.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "client/program.h"
#include "tests/unit/registry/back_end_fixture.h"

namespace test_client {

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

/// While it lives, standard input is a text.
class StandardInput {
public:
  explicit StandardInput(const std::string& text) : m_file(text), m_saved(::dup(STDIN_FILENO)) {
    ::dup2(m_file.Fd(), STDIN_FILENO);
  }
  ~StandardInput() {
    ::dup2(m_saved, STDIN_FILENO);
    ::close(m_saved);
  }
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;

private:
  MemoryFile m_file;
  int m_saved;
};

/// While it lives, standard input is a terminal, with answers that were typed in advance.
class Answers {
public:
  explicit Answers(const std::string& text) : m_saved_input(::dup(STDIN_FILENO)) {
    EXPECT_EQ(::openpty(&m_master, &m_slave, nullptr, nullptr, nullptr), 0);
    termios settings{};
    ::tcgetattr(m_slave, &settings);
    settings.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    settings.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    ::tcsetattr(m_slave, TCSANOW, &settings);
    EXPECT_EQ(::write(m_master, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    ::dup2(m_slave, STDIN_FILENO);
  }
  ~Answers() {
    ::dup2(m_saved_input, STDIN_FILENO);
    for (const int fd : {m_saved_input, m_master, m_slave}) {
      ::close(fd);
    }
  }
  Answers(const Answers&) = delete;
  Answers& operator=(const Answers&) = delete;

  int Fd() const { return m_slave; }

  /// What was written to the terminal, which passes it on in its own time.
  std::string Shown() const {
    EXPECT_EQ(::write(m_slave, "\0", 1), 1);
    std::string shown;
    for (char c = 0; ::read(m_master, &c, 1) == 1 && c != '\0';) {
      shown += c;
    }
    return shown;
  }

private:
  int m_saved_input;
  int m_master = -1;
  int m_slave = -1;
};

/// Passes calls on to another registry and remembers their names.
class RecordingRegistry : public Registry {
public:
  explicit RecordingRegistry(Registry& target) : m_target(target) {}

  /// The names since the last time.
  std::vector<std::string> TakeCalls() { return std::exchange(m_calls, {}); }

  /// Called before each call is passed on, with its name; what it throws is the call's answer.
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
  std::vector<std::string> m_calls;
  std::function<void(const std::string& name)> m_hook;
};

struct Outcome {
  int status;
  std::string output;
  std::string error;
};

inline bool operator==(const Outcome& a, const Outcome& b) {
  return a.status == b.status && a.output == b.output && a.error == b.error;
}

inline std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  return stream << "status " << outcome.status << ", output '" << outcome.output << "', error '" << outcome.error
                << "'";
}

/// Runs a command line on any registry.
inline int RunOn(Registry& registry, const std::vector<std::string>& arguments, int output, int error) {
  const std::shared_ptr<Registry> not_owned(std::shared_ptr<void>(), &registry);
  return ledgerctl::RunProgram(
      arguments, [&](const ledgerctl::CommandLine&) { return not_owned; }, output, error);
}

inline Outcome RunOn(Registry& registry, const std::vector<std::string>& arguments) {
  const MemoryFile output;
  const MemoryFile error;
  const int status = RunOn(registry, arguments, output.Fd(), error.Fd());
  return {status, output.Text(), error.Text()};
}

class ClientTest : public testing::Test {
protected:
  explicit ClientTest(const std::string& text = "", std::uint32_t capacity = 16383)
      : back_end(text, capacity), registry(*back_end.registry) {}

  Outcome Run(const std::vector<std::string>& arguments) { return RunOn(registry, arguments); }

  BackEnd back_end;
  RecordingRegistry registry;
};

/// What a command prints that does what it is told.
inline Outcome Prints(const std::string& output) { return {0, output, ""}; }

using Calls = std::vector<std::string>;

}  // namespace test_client
