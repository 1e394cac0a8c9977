#include "client/help.h"

#include "client/verb_table.h"

namespace ledgerctl {
namespace {

constexpr char kHead[] =
    "ledgerctl reads and changes the settings that ledgerd stores. Only root and\n"
    "members of the group \"ledger\" may use it.\n"
    "\n"
    "Usage: ledgerctl [OPTION...] VERB [ARGUMENT...]\n"
    "\n";

constexpr char kTail[] =
    "\n"
    "Options, before or after the verb; with set, before SECTION:\n"
    "  -q, --quiet     print only errors, no warnings and notes\n"
    "  -0, --null      get, list: print NUL bytes instead of newlines\n"
    "  --json          get, exists, list, show, usage, watch: print JSON\n"
    "  --timeout S     wait S seconds for an answer instead of 25\n"
    "  -h, --help      print this text, or the text of the verb\n"
    "  --version       print the version\n"
    "The last one counts if an option is repeated.\n"
    "\n"
    "Names are ASCII; upper case counts as lower case. Write \"--\" before names and\n"
    "values that begin with \"-\". In set, only a SECTION needs that.\n"
    "\n"
    "Exit status:\n"
    "   0  success; exists: yes; diff: no difference\n"
    "   1  no such section or key; exists: no; diff: a difference;\n"
    "      usage: above PERCENT\n"
    "   2  invalid command line, or a value that D-Bus cannot carry\n"
    "   3  a name that is not ASCII; set: a key that the daemon would lose\n"
    "   4  not a registry document\n"
    "   5  the registry would be too full; nothing changed\n"
    "   6  the daemon is not running\n"
    "   7  the bus denies access\n"
    "   8  no answer in time\n"
    "   9  another error of the daemon\n"
    "  10  a file, standard output or the editor failed; edit refused the text\n";

std::string Synopsis(const VerbEntry& help) {
  return help.name + std::string(*help.arguments == '\0' ? "" : " ") + help.arguments;
}

}  // namespace

std::string HelpText() {
  constexpr std::size_t kSummaryColumn = 38;
  std::string text = kHead;
  for (const VerbEntry& help : kVerbs) {
    std::string line = "  " + Synopsis(help);
    if (line.size() + 2 > kSummaryColumn) {
      line += "\n";
      line.append(kSummaryColumn, ' ');
    } else {
      line.append(kSummaryColumn - line.size(), ' ');
    }
    text += line + help.summary + "\n";
  }
  return text + kTail;
}

std::string HelpText(const std::string& verb) {
  const VerbEntry& help = *FindVerb(verb);
  return "ledgerctl " + Synopsis(help) + "\n\n" + help.summary + "\n\n" + help.details;
}

ExitStatus ShowHelp(const CommandLine& command, Context& context) {
  context.output.Write(command.topic ? HelpText(*command.topic) : HelpText());
  return ExitStatus::Success;
}

std::string VersionText() { return "ledgerctl " LEDGERD_VERSION; }

}  // namespace ledgerctl
