#include "client/help.h"

namespace ledgerctl {
namespace {

struct VerbHelp {
  const char* verb;
  const char* arguments;
  const char* summary;
  const char* details;
};

constexpr VerbHelp kVerbs[] = {
    {"get", "SECTION KEY [--default VALUE]", "print a value",
     "Prints the value as it is, and a line feed. Where there is no such key it fails\n"
     "with status 1, or prints VALUE; an empty value is a value.\n"
     "\n"
     "  -0, --null       end in a NUL byte instead of the line feed\n"
     "  --json           print a JSON string\n"
     "  --default VALUE  print VALUE where there is no such key\n"},
    {"set", "SECTION KEY VALUE [--flush]", "set a value",
     "Makes the section and the key if they are missing. The value \"-\" stands for\n"
     "standard input, byte for byte, the last line feed included. The daemon writes\n"
     "its file 60 seconds after the first change.\n"
     "\n"
     "  --flush          have the file written at once\n"},
    {"exists", "SECTION [KEY]", "tell whether there is a section or key",
     "Prints nothing; the exit status is 0 for yes and 1 for no.\n"
     "\n"
     "  --json           print true or false as well\n"},
    {"list", "[SECTION]", "list the sections, or a section's keys",
     "One name to a line, in ascending byte order. On a terminal, names that hold\n"
     "other characters than letters, digits and _@%+:,./- are quoted for a shell.\n"
     "\n"
     "  -0, --null       end each name in a NUL byte: names may hold line feeds\n"
     "  --json           print an array of strings\n"},
    {"show", "[SECTION]", "show keys and values, for people",
     "\"[section]\" and \"key=value\" lines; names and values are quoted as a shell needs\n"
     "it, with $'...' where they hold control characters.\n"
     "\n"
     "  --json           print an object of objects of strings; with SECTION, an\n"
     "                   object of strings\n"},
    {"unset", "SECTION KEY | -r SECTION", "delete a key or a whole section",
     "Fails with status 1 where there is none. A section stays when its last key goes.\n"
     "\n"
     "  -r               delete the section with all its keys\n"},
    {"clear", "--yes", "delete everything",
     "Deletes all sections. \"ledgerctl dump FILE\" makes a copy before.\n"
     "\n"
     "  --yes            confirms that it is meant\n"},
    {"flush", "[--sync]", "have the registry written to its file now",
     "Without it the daemon writes 60 seconds after the first change. A file that is\n"
     "written but not synced can still be lost in a power cut.\n"
     "\n"
     "  --sync           then sync the file system that the file is on\n"},
    {"dump", "[FILE|-]", "print the registry as JSON, or save it",
     "An indented object of objects of strings. FILE is replaced in one step: it has\n"
     "the old text or the new one, also after a power cut. \"-\" is standard output.\n"},
    {"load", "[FILE|-] [--replace | --missing-only] [--dry-run]", "take in a JSON document",
     "Reads FILE or standard input: an object of objects of strings. A string sets a\n"
     "key, null deletes a key or section, what is not named stays. Either all of it\n"
     "happens or nothing, and the daemon writes its file at once.\n"
     "\n"
     "  --replace        delete what the document does not name\n"
     "  --missing-only   set only keys that are missing. What others change between\n"
     "                   the look and the change is overwritten\n"
     "  --dry-run        change nothing; print what would change\n"},
    {"edit", "[SECTION]", "change the registry in an editor",
     "Opens $VISUAL, $EDITOR or vi on what \"show\" prints. Prints what was changed and\n"
     "changes that and nothing else, in one step, unless somebody else has changed the\n"
     "same in the meantime. If that or anything else behind the editor stops it, your\n"
     "text is kept, and a message says where.\n"},
    {"diff", "FILE", "compare the registry with a JSON document",
     "Prints what \"load --replace FILE\" would change: lines with \"-\" go, lines with\n"
     "\"+\" come. The exit status is 0 if there is nothing and 1 if there is. \"-\" reads\n"
     "standard input.\n"},
    {"watch", "[SECTION [KEY]] [-i SECONDS]", "print changes as they are seen",
     "Asks for the registry every second and prints what is different from the time\n"
     "before: lines with \"-\" went, lines with \"+\" came. A change that is undone in\n"
     "between is not seen. Ends with Ctrl-C.\n"
     "\n"
     "  -i SECONDS       ask that often; decimals are allowed\n"},
    {"usage", "", "show how full the registry is",
     "Counts the bytes of the registry's file, of which 16383 are allowed, in all and\n"
     "for each section.\n"
     "\n"
     "  --json           print an object with used, capacity and sections\n"},
    {"help", "[VERB]", "explain a verb", "Also \"ledgerctl VERB --help\".\n"},
};

constexpr char kHead[] =
    "ledgerctl reads and changes the settings that ledgerd keeps.\n"
    "\n"
    "Usage: ledgerctl [OPTION...] VERB [ARGUMENT...]\n"
    "\n";

constexpr char kTail[] =
    "\n"
    "Options, before or behind the verb:\n"
    "  -q, --quiet     no warnings and notes, errors only\n"
    "  -0, --null      get, list: end in NUL bytes instead of line feeds\n"
    "  --json          get, exists, list, show, usage: print JSON\n"
    "  --timeout S     wait S seconds for an answer instead of 25\n"
    "  -h, --help      this text, or that of the verb\n"
    "  --version       the version\n"
    "\n"
    "Names are ASCII; upper case counts as lower case. Names and values that begin\n"
    "with \"-\" go behind \"--\".\n"
    "\n"
    "Exit status:\n"
    "   0  done; exists: yes; diff: the same\n"
    "   1  no such section or key; exists: no; diff: not the same\n"
    "   2  the command line, or a value that the bus cannot carry\n"
    "   3  a name that is not ASCII\n"
    "   4  not a registry document\n"
    "   5  the registry would be too full; nothing changed\n"
    "   6  the daemon is not running\n"
    "   7  the bus permits no access\n"
    "   8  no answer in time\n"
    "   9  the daemon's own error\n"
    "  10  a file, standard output or the editor failed; edit met another's change\n";

std::string Synopsis(const VerbHelp& help) {
  return help.verb + std::string(*help.arguments == '\0' ? "" : " ") + help.arguments;
}

}  // namespace

std::string HelpText() {
  constexpr std::size_t kSummaryColumn = 38;
  std::string text = kHead;
  for (const VerbHelp& help : kVerbs) {
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
  for (const VerbHelp& help : kVerbs) {
    if (verb == help.verb) {
      return "ledgerctl " + Synopsis(help) + "\n\n" + help.summary + "\n\n" + help.details;
    }
  }
  return HelpText();
}

std::string VersionText() { return "ledgerctl " LEDGERD_VERSION; }

}  // namespace ledgerctl
