// ledgerctl: the registry on the command line.
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "client/command_line.h"
#include "client/failure_report.h"
#include "client/output.h"
#include "client/registry_proxy.h"
#include "client/verbs.h"

namespace {

using namespace ledgerctl;

// Descriptors 0 to 2 that are closed would go to the next file that is opened. What takes their place refuses to be
// read or written, so that a result that nobody gets is an error.
void OccupyClosedStreams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(fd, F_GETFD) == -1) {
      [[maybe_unused]] const int lowest = ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
  }
}

ExitStatus Run(const CommandLine& command, const Messages& messages) {
  RegistryProxy registry(command.timeout, command.shown_timeout);
  Output output(STDOUT_FILENO);
  Context context{registry, output, messages};
  try {
    const ExitStatus status = RunVerb(command, context);
    output.Flush();
    return status;
  } catch (const Failure&) {
    // What was printed before belongs in front of the error.
    output.Flush();
    throw;
  }
}

int ReportFailure(const Messages& messages) {
  const Failure failure = CurrentFailure();
  messages.Error(failure.what());
  return static_cast<int>(failure.Status());
}

}  // namespace

int main(int argc, char** argv) {
  OccupyClosedStreams();
  bool quiet = false;
  try {
    const CommandLine command = ParseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    quiet = command.quiet;
    return static_cast<int>(Run(command, Messages(STDERR_FILENO, quiet)));
  } catch (...) {
    return ReportFailure(Messages(STDERR_FILENO, quiet));
  }
}
