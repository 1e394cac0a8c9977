#include "client/difference.h"
#include "client/editor.h"
#include "client/failure.h"
#include "client/files.h"
#include "client/merge_warnings.h"
#include "client/name_rules.h"
#include "client/quote_word.h"
#include "client/registry_merge.h"
#include "client/registry_snapshot.h"
#include "client/temporary_file.h"
#include "client/text_form.h"
#include "client/verbs.h"
#include "client/written_change.h"

namespace ledgerctl {
namespace {

constexpr char kIntroduction[] =
    "# Settings of ledgerd. Lines that begin with \"#\" are passed over.\n"
    "# A line that is taken away deletes its key; to delete a section, take away its\n"
    "# [header] too. Blanks and other special characters can be quoted as in a shell.\n"
    "\n";

// What the user works on: the whole registry or one section of it, without what no caller can change.
RegistrySections ReadEditable(const CommandLine& command, Context& context) {
  RegistrySections sections = ReadRegistry(context.registry);
  for (const std::string& line : DropUnreachable(sections)) {
    context.messages.Warning(line);
  }
  if (command.section) {
    const auto found = sections.find(FoldName(*command.section));
    RegistrySections chosen;
    if (found != sections.end()) {
      chosen.insert(*found);
    }
    return chosen;
  }
  return sections;
}

// Whether what the user changes is still as the user saw it.
void CheckUnchanged(const RegistrySections& seen, const RegistrySections& now, const Merge& merge) {
  for (const Difference& difference : FindDifferences(seen, now)) {
    const auto section = merge.find(difference.section);
    const bool section_goes = section != merge.end() && !section->second;
    const bool key_changes =
        section != merge.end() && section->second && difference.key && section->second->count(*difference.key) != 0;
    if (section_goes || key_changes) {
      throw Failure(ExitStatus::Local, (difference.key ? ShownKey(difference.section, *difference.key)
                                                       : ShownSection(difference.section)) +
                                           " has changed meanwhile; nothing changed");
    }
  }
}

void MergeText(const CommandLine& command, const RegistrySections& seen, const std::string& text, Context& context) {
  const RegistrySections wanted = ParseText(text);
  const Merge merge = MergeBetween(seen, wanted);
  for (const Difference& difference : FindDifferences(seen, wanted)) {
    if (difference.after && !IsUtf8(*difference.after)) {
      throw Failure(ExitStatus::NotADocument,
                    "the value of " + ShownKey(difference.section, *difference.key) + " is not UTF-8");
    }
  }
  if (merge.empty()) {
    context.messages.Note("Nothing changed.");
    return;
  }
  for (const std::string& warning : MergeWarnings(merge)) {
    context.messages.Warning(warning);
  }
  PrintDifferences(FindDifferences(seen, wanted), context.output);
  context.output.Flush();
  CheckUnchanged(seen, ReadEditable(command, context), merge);
  WriteMerge(context.registry, merge);
}

}  // namespace

ExitStatus Edit(const CommandLine& command, Context& context) {
  if (command.section) {
    CheckName(*command.section);
  }
  const RegistrySections seen = ReadEditable(command, context);
  if (command.section && seen.empty()) {
    throw Failure(ExitStatus::Missing, "no " + ShownSection(*command.section));
  }
  TemporaryFile file = TemporaryFile::Private();
  file.WriteAndClose(kIntroduction + PrintText(seen));
  RunEditor(file.Path());
  file.HoldWork();
  const std::string text = ReadDocument(file.Path());
  try {
    MergeText(command, seen, text, context);
  } catch (...) {
    const Failure failure = CurrentFailure();
    const std::string path = file.Path();
    file.Keep();
    throw Failure(failure.Status(), std::string(failure.what()).append("\n").append(kKeptText).append(path));
  }
  return ExitStatus::Success;
}

}  // namespace ledgerctl
