// The verbs for single keys, and those for all of them at once.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "client/files.h"
#include "client/json_text.h"
#include "client/merge_warnings.h"
#include "client/quote_word.h"
#include "client/verbs.h"
#include "client/written_change.h"
#include "lib/platform/posix_helpers.h"
#include "registry/name_rules.h"

namespace ledgerctl {
namespace {

// Where the daemon keeps its file.
constexpr char kStoreDirectory[] = "/var/lib/plinthware";

// Before any call: the daemon answers a bad key in a new section with an error and keeps that section.
void CheckNames(const CommandLine& command) {
  for (const auto& name : {command.section, command.key}) {
    if (name) {
      CheckName(*name);
    }
  }
}

Failure NoSuchKey(const CommandLine& command) {
  return Failure(ExitStatus::Missing, "no " + ShownKey(*command.section, *command.key));
}

void PrintValue(const CommandLine& command, const std::string& value, Output& output) {
  output.Write(command.json ? QuoteJson(value) : value);
  output.Write(command.nul ? std::string_view("\0", 1) : "\n");
}

Failure NotCarried(ExitStatus status, const std::string& section, const std::string& key, const char* why) {
  return Failure(status, "D-Bus cannot carry the value of " + ShownKey(section, key) + ": it " + why);
}

// The pairs of the command, with the value from standard input if there is one.
RegistrySection ReadValues(const CommandLine& command) {
  RegistrySection values = command.pairs;
  for (auto& [key, value] : values) {
    if (value == "-" && !command.after_dashes) {
      value = ReadDocument("-");
    }
    if (value.find('\0') != std::string::npos) {
      throw NotCarried(ExitStatus::InvalidName, *command.section, key, "holds a NUL byte");
    }
    // JSON text would silently have another character instead.
    if (values.size() > 1 && !IsUtf8(value)) {
      throw NotCarried(ExitStatus::Usage, *command.section, key, "is not UTF-8");
    }
  }
  return values;
}

}  // namespace

ExitStatus Get(const CommandLine& command, Context& context) {
  CheckNames(command);
  std::string value = context.registry.Read(*command.section, *command.key);
  // A missing key reads as empty.
  if (value.empty() && !context.registry.KeyExists(*command.section, *command.key)) {
    if (!command.default_value) {
      throw NoSuchKey(command);
    }
    value = *command.default_value;
  }
  PrintValue(command, value, context.output);
  return ExitStatus::Success;
}

ExitStatus Set(const CommandLine& command, Context& context) {
  CheckNames(command);
  const RegistrySection values = ReadValues(command);
  const Merge merge = {{*command.section, KeyMerge(values.begin(), values.end())}};
  RefuseLosses(merge, command.force, ExitStatus::InvalidName, context.messages);
  if (values.size() == 1) {
    context.registry.Write(*command.section, values.begin()->first, values.begin()->second);
    if (command.flush) {
      FlushChange(context.registry);
    }
  } else {
    WriteMerge(context.registry, merge);
  }
  return ExitStatus::Success;
}

ExitStatus Exists(const CommandLine& command, Context& context) {
  CheckNames(command);
  const bool exists = command.key ? context.registry.KeyExists(*command.section, *command.key)
                                  : context.registry.SectionExists(*command.section);
  if (command.json) {
    context.output.Write(exists ? "true\n" : "false\n");
  }
  return exists ? ExitStatus::Success : ExitStatus::Missing;
}

ExitStatus Unset(const CommandLine& command, Context& context) {
  CheckNames(command);
  if (command.whole_section) {
    if (!context.registry.SectionExists(*command.section)) {
      throw Failure(ExitStatus::Missing, "no " + ShownSection(*command.section));
    }
    context.registry.DeleteSection(*command.section);
    return ExitStatus::Success;
  }
  if (!context.registry.KeyExists(*command.section, *command.key)) {
    throw NoSuchKey(command);
  }
  context.registry.DeleteKey(*command.section, *command.key);
  return ExitStatus::Success;
}

ExitStatus Clear(const CommandLine&, Context& context) {
  context.registry.DeleteAll();
  return ExitStatus::Success;
}

ExitStatus Flush(const CommandLine& command, Context& context) {
  context.registry.Flush();
  if (command.sync) {
    const bramble::FileDescriptor directory(::open(kStoreDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.IsOpen() || ::syncfs(directory.Get()) != 0) {
      throw LocalFailure(std::string("written, but not synced: ") + kStoreDirectory, errno);
    }
  }
  return ExitStatus::Success;
}

}  // namespace ledgerctl
