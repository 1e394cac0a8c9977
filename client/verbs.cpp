#include "client/verbs.h"

#include "client/help.h"

namespace ledgerctl {

ExitStatus RunVerb(const CommandLine& command, Context& context) {
  switch (command.verb) {
    case Verb::Get:
      return Get(command, context);
    case Verb::Set:
      return Set(command, context);
    case Verb::Exists:
      return Exists(command, context);
    case Verb::List:
      return List(command, context);
    case Verb::Show:
      return Show(command, context);
    case Verb::Unset:
      return Unset(command, context);
    case Verb::Clear:
      return Clear(command, context);
    case Verb::Flush:
      return Flush(command, context);
    case Verb::Dump:
      return Dump(command, context);
    case Verb::Load:
      return Load(command, context);
    case Verb::Edit:
      return Edit(command, context);
    case Verb::Diff:
      return Diff(command, context);
    case Verb::Watch:
      return Watch(command, context);
    case Verb::Usage:
      return ShowUsage(command, context);
    case Verb::Version:
      context.output.Write(VersionText() + "\n");
      return ExitStatus::Success;
    case Verb::Help:
      break;
  }
  context.output.Write(command.topic ? HelpText(*command.topic) : HelpText());
  return ExitStatus::Success;
}

}  // namespace ledgerctl
