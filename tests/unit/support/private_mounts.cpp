#include "tests/unit/support/private_mounts.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

namespace test_support {
namespace {

constexpr char kKernelLog[] = "/dev/kmsg";
std::string g_stand_in;

void WriteAll(const char* path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  file.close();
  RequireSuccess(bool(file), path);
}

void EnterNamespaces() {
  const uid_t uid = ::geteuid();
  const gid_t gid = ::getegid();
  if (uid == 0) {
    RequireSuccess(::unshare(CLONE_NEWNS) == 0, "unshare");
    return;
  }
  RequireSuccess(::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "unshare (tests need root or user namespaces)");
  WriteAll("/proc/self/setgroups", "deny");
  WriteAll("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
  WriteAll("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

std::string NewSocket() {
  const std::string path = g_stand_in + ".socket";
  RequireSuccess(::mknod(path.c_str(), S_IFSOCK | 0600, 0) == 0, path.c_str());
  return path;
}

}  // namespace

void EnterPrivateMounts() {
  EnterNamespaces();
  RequireSuccess(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount --make-rprivate /");
  char path[] = "/tmp/ledgerd-test-kmsg-XXXXXX";
  const int fd = ::mkstemp(path);
  RequireSuccess(fd >= 0, path);
  ::close(fd);
  g_stand_in = path;
  RequireSuccess(::mount(path, kKernelLog, nullptr, MS_BIND, nullptr) == 0, kKernelLog);
}

void LeavePrivateMounts() { ::unlink(g_stand_in.c_str()); }

std::string KernelLog() {
  std::ifstream file(kKernelLog);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void ClearKernelLog() { std::ofstream(kKernelLog, std::ios::trunc); }

UnopenableKernelLog::UnopenableKernelLog() : m_socket(NewSocket()), m_mount(m_socket, kKernelLog) {}
UnopenableKernelLog::~UnopenableKernelLog() { ::unlink(m_socket.c_str()); }

}  // namespace test_support
