#include "client/program.h"

#include "client/failure.h"
#include "client/help.h"
#include "client/output.h"
#include "client/verb_table.h"

namespace ledgerctl {
namespace {

ExitStatus Run(const CommandLine& command, Registry& registry, Output& output, const Messages& messages) {
  Context context{registry, output, messages};
  try {
    const ExitStatus status = command.verb->run(command, context);
    output.Flush();
    return status;
  } catch (...) {
    // Prints the output before the error.
    output.Flush();
    throw;
  }
}

}  // namespace

int RunProgram(const std::vector<std::string>& arguments, const RegistryFactory& make_registry, int output, int error) {
  bool quiet = false;
  try {
    const CommandLine command = ParseCommandLine(arguments);
    quiet = command.quiet;
    Output standard_output(output);
    if (command.version) {
      standard_output.Write(VersionText() + "\n");
      standard_output.Flush();
      return static_cast<int>(ExitStatus::Success);
    }
    return static_cast<int>(Run(command, *make_registry(command), standard_output, Messages(error, quiet)));
  } catch (...) {
    const Failure failure = CurrentFailure();
    Messages(error, quiet).Error(failure.what());
    return static_cast<int>(failure.Status());
  }
}

}  // namespace ledgerctl
