// The verbs that work with documents.
#include "client/difference.h"
#include "client/files.h"
#include "client/json_text.h"
#include "client/merge_warnings.h"
#include "client/registry_merge.h"
#include "client/registry_snapshot.h"
#include "client/text_form.h"
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
  const std::string text = ReadDocument(path);
  const std::string source = ShownSource(path);
  if (!command.text) {
    return ParseMerge(text, source);
  }
  if (IsEmptyText(text)) {
    throw Failure(ExitStatus::NotADocument, source + ": the text has no [section]");
  }
  return MergeOf(ParseText(text, {source, std::nullopt}));
}

RegistrySections ReadReachable(Context& context) {
  RegistrySections sections = ReadRegistry(context.registry);
  Warn(DropUnreachable(sections), context.messages);
  return sections;
}

Merge WhatToLoad(const CommandLine& command, const Merge& document, Context& context) {
  if (command.replace) {
    return MergeThatReplaces(ReadReachable(context), ContentsOf(document));
  }
  if (command.missing_only) {
    return MergeOfMissing(ReadRegistry(context.registry), ContentsOf(document));
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
  RefuseLosses(merge, command.force, ExitStatus::NotADocument, context.messages);
  if (command.dry_run) {
    const RegistrySections before = ReadRegistry(context.registry);
    RegistrySections after = before;
    ApplyMerge(merge, after);
    PrintDifferences(FindDifferences(before, after), context.output);
    CheckFits(after);
  } else {
    WriteMerge(context.registry, merge);
  }
  Warn(SpellingWarnings(document), context.messages);
  return ExitStatus::Success;
}

ExitStatus Diff(const CommandLine& command, Context& context) {
  const Merge document = ReadMerge(command);
  const std::vector<Difference> differences = FindDifferences(ReadRegistry(context.registry), ContentsOf(document));
  PrintDifferences(differences, context.output);
  return differences.empty() ? ExitStatus::Success : ExitStatus::Missing;
}

}  // namespace ledgerctl
