#include "tests/unit/support/private_mounts.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace test_support {
namespace {

constexpr char kKernelLog[] = "/dev/kmsg";
std::string g_stand_in;

[[noreturn]] void Die(const char* what) {
  std::perror(what);
  std::exit(1);
}

void WriteAll(const char* path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  file.close();
  if (!file) {
    Die(path);
  }
}

void EnterNamespaces() {
  const uid_t uid = ::geteuid();
  const gid_t gid = ::getegid();
  if (uid == 0) {
    if (::unshare(CLONE_NEWNS) != 0) {
      Die("unshare");
    }
    return;
  }
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
    Die("unshare (tests need root or user namespaces)");
  }
  WriteAll("/proc/self/setgroups", "deny");
  WriteAll("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
  WriteAll("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

void BindOver(const std::string& source, const char* target) {
  if (::mount(source.c_str(), target, nullptr, MS_BIND, nullptr) != 0) {
    Die(target);
  }
}

}  // namespace

void EnterPrivateMounts() {
  EnterNamespaces();
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    Die("mount --make-rprivate /");
  }
  char path[] = "/tmp/ledgerd-test-kmsg-XXXXXX";
  const int fd = ::mkstemp(path);
  if (fd < 0) {
    Die(path);
  }
  ::close(fd);
  g_stand_in = path;
  BindOver(g_stand_in, kKernelLog);
}

void LeavePrivateMounts() { ::unlink(g_stand_in.c_str()); }

std::string KernelLog() {
  std::ifstream file(kKernelLog);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void ClearKernelLog() { std::ofstream(kKernelLog, std::ios::trunc); }

UnopenableKernelLog::UnopenableKernelLog() : m_socket(g_stand_in + ".socket") {
  if (::mknod(m_socket.c_str(), S_IFSOCK | 0600, 0) != 0) {
    Die(m_socket.c_str());
  }
  BindOver(m_socket, kKernelLog);
}

UnopenableKernelLog::~UnopenableKernelLog() {
  if (::umount2(kKernelLog, MNT_DETACH) != 0) {
    Die("umount /dev/kmsg");
  }
  ::unlink(m_socket.c_str());
}

}  // namespace test_support
