// The verbs that work with JSON documents.
#include "client/difference.h"
#include "client/files.h"
#include "client/json_text.h"
#include "client/merge_warnings.h"
#include "client/registry_merge.h"
#include "client/registry_snapshot.h"
#include "client/verbs.h"
#include "client/written_change.h"

namespace ledgerctl {
namespace {

void Warn(const std::vector<std::string>& warnings, const Messages& messages) {
  for (const std::string& warning : warnings) {
    messages.Warning(warning);
  }
}

Merge ReadMerge(const CommandLine& command) {
  const std::string path = command.file.value_or("-");
  return ParseMerge(ReadDocument(path), ShownSource(path));
}

RegistrySections ReadReachable(Context& context) {
  RegistrySections sections = ReadRegistry(context.registry);
  Warn(DropUnreachable(sections), context.messages);
  return sections;
}

RegistrySections Contents(const Merge& document) {
  RegistrySections sections;
  ApplyMerge(document, sections);
  return sections;
}

Merge WhatToLoad(const CommandLine& command, const Merge& document, Context& context) {
  if (command.replace) {
    return MergeThatReplaces(ReadReachable(context), Contents(document));
  }
  if (command.missing_only) {
    return MergeOfMissing(ReadRegistry(context.registry), Contents(document));
  }
  return document;
}

}  // namespace

ExitStatus Dump(const CommandLine& command, Context& context) {
  const RegistrySections sections = ReadRegistry(context.registry);
  RegistrySections reachable = sections;
  Warn(DropUnreachable(reachable), context.messages);
  const std::string text = PrintIndentedJson(sections);
  if (command.file && *command.file != "-") {
    ReplaceDocument(*command.file, text);
  } else {
    context.output.Write(text);
  }
  return ExitStatus::Success;
}

ExitStatus Load(const CommandLine& command, Context& context) {
  const Merge document = ReadMerge(command);
  const Merge merge = WhatToLoad(command, document, context);
  if (command.dry_run) {
    const RegistrySections before = ReadRegistry(context.registry);
    RegistrySections after = before;
    ApplyMerge(merge, after);
    PrintDifferences(FindDifferences(before, after), context.output);
    CheckFits(after);
  } else {
    WriteMerge(context.registry, merge);
  }
  Warn(MergeWarnings(document), context.messages);
  return ExitStatus::Success;
}

ExitStatus Diff(const CommandLine& command, Context& context) {
  const Merge document = ReadMerge(command);
  const std::vector<Difference> differences = FindDifferences(ReadRegistry(context.registry), Contents(document));
  PrintDifferences(differences, context.output);
  return differences.empty() ? ExitStatus::Success : ExitStatus::Missing;
}

}  // namespace ledgerctl
