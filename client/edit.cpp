#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "client/difference.h"
#include "client/failure.h"
#include "client/files.h"
#include "client/merge_warnings.h"
#include "client/quote_word.h"
#include "client/registry_merge.h"
#include "client/registry_snapshot.h"
#include "client/shell_command.h"
#include "client/temporary_file.h"
#include "client/text_form.h"
#include "client/verbs.h"
#include "client/written_change.h"
#include "registry/name_rules.h"

namespace ledgerctl {
namespace {

constexpr char kIntroduction[] =
    "# Settings of ledgerd. Lines that begin with \"#\" are ignored.\n"
    "# Remove a line to delete its key. Remove a [section] with all its lines to\n"
    "# delete the section. Quote spaces and other special characters as in a shell.\n"
    "# Remove everything to change nothing.\n"
    "\n";

// The user left nothing that is worth keeping.
class EmptyText : public Failure {
public:
  using Failure::Failure;
};

// Returns the whole registry or the section of the command, without names that no caller can reach.
RegistrySections ReadEditable(const CommandLine& command, Context& context) {
  RegistrySections sections = ReadRegistry(context.registry);
  for (const std::string& line : DropUnreachable(sections)) {
    context.messages.Warning(line);
  }
  if (!command.section) {
    return sections;
  }
  const auto found = sections.find(FoldName(*command.section));
  if (found == sections.end()) {
    throw Failure(ExitStatus::Missing, "no " + ShownSection(*command.section));
  }
  return {*found};
}

// A command with its options, for a shell to split.
std::string EditorCommand() {
  for (const char* variable : {"VISUAL", "EDITOR"}) {
    const char* const command = std::getenv(variable);
    if (command != nullptr && *command != '\0') {
      return command;
    }
  }
  return "vi";
}

// Waits for the end of the editor. Throws Failure (Local) if it cannot be run or does not end with status 0.
void RunEditor(const std::string& path) {
  const int status = RunInForeground(EditorCommand() + " \"$1\"", path);
  if (WIFSIGNALED(status) && (WTERMSIG(status) == SIGINT || WTERMSIG(status) == SIGQUIT)) {
    // It was meant for this program too.
    ::raise(WTERMSIG(status));
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw Failure(ExitStatus::Local, "the editor failed; nothing changed");
  }
}

std::string ReadEdited(const CommandLine& command, const RegistrySections& seen, const std::string& path) {
  std::string text = ReadDocument(path);
  // An editor that fails to write can leave an empty text, and so can a user who wants no change.
  if (IsEmptyText(text) && !seen.empty()) {
    throw EmptyText(ExitStatus::Local,
                    "the text is empty; nothing changed\n" +
                        (command.section ? "To delete the section: ledgerctl unset -r " + QuoteWord(*command.section)
                                         : std::string("To delete everything: ledgerctl clear --yes")));
  }
  return text;
}

// Throws Failure (Local) if another client has changed what the user changes.
void CheckUnchanged(const RegistrySections& seen, Registry& registry, const Merge& merge) {
  RegistrySections now = ReadRegistry(registry);
  DropUnreachable(now);
  for (const Difference& difference : FindDifferences(seen, now)) {
    const auto section = merge.find(difference.section);
    const bool section_is_deleted = section != merge.end() && !section->second;
    const bool key_changes =
        section != merge.end() && section->second && difference.key && section->second->count(*difference.key) != 0;
    if (section_is_deleted || key_changes) {
      throw Failure(ExitStatus::Local, (difference.key ? ShownKey(difference.section, *difference.key)
                                                       : ShownSection(difference.section)) +
                                           " has changed meanwhile; nothing changed");
    }
  }
}

void ApplyText(const CommandLine& command, const RegistrySections& seen, const std::string& text, Context& context) {
  TextRules rules;
  if (command.section) {
    rules.only_section = FoldName(*command.section);
  }
  const RegistrySections wanted = ParseText(text, rules);
  const Merge merge = MergeBetween(seen, wanted);
  if (merge.empty()) {
    context.messages.Note("Nothing changed.");
    return;
  }
  RefuseLosses(merge, command.force, ExitStatus::NotADocument, context.messages);
  PrintDifferences(FindDifferences(seen, wanted), context.output);
  context.output.Flush();
  CheckUnchanged(seen, context.registry, merge);
  WriteMerge(context.registry, merge);
}

bool CanBeCorrected(ExitStatus status) {
  return status == ExitStatus::InvalidName || status == ExitStatus::Full || status == ExitStatus::Local;
}

// The end of the input means "quit".
bool WantsToEditAgain(const Messages& messages) {
  std::array<char, 80> answer{};
  do {
    messages.Question("What now? (e)dit again, (q)uit and keep the text:");
    if (std::fgets(answer.data(), answer.size(), stdin) == nullptr) {
      return false;
    }
  } while (answer[0] != 'e' && answer[0] != 'q');
  return answer[0] == 'e';
}

// Returns false if the text has a mistake and the user wants to edit it again. Throws what ends the edit.
bool ApplyOrAsk(const CommandLine& command, const RegistrySections& seen, const std::string& text, Context& context) {
  try {
    ApplyText(command, seen, text, context);
    return true;
  } catch (...) {
    const Failure failure = CurrentFailure();
    // Status 4 is for documents of `load`.
    const ExitStatus status = failure.Status() == ExitStatus::NotADocument ? ExitStatus::Local : failure.Status();
    if (!CanBeCorrected(status) || ::isatty(STDIN_FILENO) != 1 || !context.messages.IsTerminal()) {
      throw Failure(status, failure.what());
    }
    context.messages.Error(failure.what());
    if (!WantsToEditAgain(context.messages)) {
      throw Failure(status, "nothing changed");
    }
    return false;
  }
}

}  // namespace

ExitStatus Edit(const CommandLine& command, Context& context) {
  if (command.section) {
    CheckName(*command.section);
  }
  const RegistrySections seen = ReadEditable(command, context);
  TemporaryFile file = TemporaryFile::Private();
  file.WriteAndClose(kIntroduction + PrintText(seen));
  RunEditor(file.Path());
  file.HoldWork();
  try {
    while (!ApplyOrAsk(command, seen, ReadEdited(command, seen, file.Path()), context)) {
      RunEditor(file.Path());
    }
  } catch (const EmptyText&) {
    throw;
  } catch (...) {
    const Failure failure = CurrentFailure();
    const std::string path = file.Path();
    if (::access(path.c_str(), F_OK) != 0) {
      throw;
    }
    file.Keep();
    throw Failure(failure.Status(), std::string(failure.what()).append("\n").append(kKeptText).append(path));
  }
  return ExitStatus::Success;
}

}  // namespace ledgerctl
