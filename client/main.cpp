// ledgerctl: the registry on the command line.
#include <fcntl.h>
#include <unistd.h>

#include "client/program.h"
#include "client/registry_proxy.h"

namespace {

// Descriptors 0 to 2 that are closed would go to the next file that is opened. What takes their place refuses to be
// read or written, so that a result that nobody gets is an error.
void OccupyClosedStreams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(fd, F_GETFD) == -1) {
      [[maybe_unused]] const int lowest = ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
}

std::shared_ptr<Registry> MakeProxy(const ledgerctl::CommandLine& command) {
  return std::make_shared<ledgerctl::RegistryProxy>(command.timeout, command.shown_timeout);
}

}  // namespace

int main(int argc, char** argv) {
  OccupyClosedStreams();
  return ledgerctl::RunProgram({argv + 1, argv + argc}, MakeProxy, STDOUT_FILENO, STDERR_FILENO);
}
