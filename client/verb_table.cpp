#include "client/verb_table.h"

#include <algorithm>

#include "client/verb_options.h"

namespace ledgerctl {

const std::array<VerbEntry, 15> kVerbs = {{
    {"get", "SECTION KEY [--default VALUE]", "print a value",
     "Prints the value unchanged, and a newline. Fails with status 1 if the key does\n"
     "not exist. If its value is empty, prints an empty line.\n"
     "\n"
     "  -0, --null       print a NUL byte instead of the newline\n"
     "  --json           print a JSON string\n"
     "  --default VALUE  print VALUE if the key does not exist\n",
     true, true, DeclareGet, Get},
    {"set", "[--flush] [--force] SECTION KEY VALUE [KEY VALUE]...", "set values",
     "Creates the section and the keys if they do not exist. The daemon writes its\n"
     "file 60 seconds after the first unwritten change. Several pairs are one change:\n"
     "either all keys are set or none, and the daemon writes its file at once.\n"
     "\n"
     "Options precede SECTION. Each word after SECTION is literal, even \"-5\", \"-h\" or\n"
     "\"--json\". The VALUE \"-\" reads standard input. If \"--\" precedes SECTION, \"-\" is\n"
     "literal too, and a KEY may contain \"=\". A KEY must not be given twice.\n"
     "\n"
     "Fails with status 3 if the daemon would lose a key at its next start: a key that\n"
     "begins with \"[\", or an empty key with an empty value. A value with a NUL byte\n"
     "always fails with status 3, because D-Bus cannot carry it.\n"
     "\n"
     "  --flush          make the daemon write its file at once\n"
     "  --force          set a key that the daemon would lose, and print a warning\n",
     false, false, DeclareSet, Set},
    {"exists", "SECTION [KEY]", "report whether a section or key exists",
     "Prints nothing. The exit status is 0 for yes and 1 for no.\n"
     "\n"
     "  --json           also print true or false\n",
     false, true, DeclareExists, Exists},
    {"list", "[SECTION]", "list sections, or the keys of a section",
     "Prints one name on each line, in ascending byte order. On a terminal, names\n"
     "with characters other than letters, digits and _@%+:,./- are quoted for a shell.\n"
     "\n"
     "  -0, --null       end each name with a NUL byte: names may contain newlines\n"
     "  --json           print an array of strings\n",
     true, true, DeclareSection, List},
    {"show", "[SECTION]", "show keys and values in readable form",
     "Prints \"[section]\" and \"key=value\" lines. Names and values are quoted for a\n"
     "shell if necessary; control characters are printed as $'...'.\n"
     "\n"
     "  --json           print an object for each section, with string values; with\n"
     "                   SECTION, print only the object of that section\n",
     false, true, DeclareSection, Show},
    {"unset", "SECTION KEY | -r SECTION", "delete a key or a whole section",
     "Fails with status 1 if the key or section does not exist. Deleting the last key\n"
     "of a section does not delete the section.\n"
     "\n"
     "  -r               delete the section with all its keys\n",
     false, false, DeclareUnset, Unset},
    {"clear", "--yes", "delete everything",
     "Deletes all sections. To keep a copy, run \"ledgerctl dump FILE\" first.\n"
     "\n"
     "  --yes            confirm that everything is to be deleted (required)\n",
     false, false, DeclareClear, Clear},
    {"flush", "[--sync]", "make the daemon write its file now",
     "Without this verb, the daemon writes its file 60 seconds after the first\n"
     "unwritten change. A file that is written but not synced can still be lost in a\n"
     "power cut.\n"
     "\n"
     "  --sync           then sync the file system of the file\n",
     false, false, DeclareFlush, Flush},
    {"dump", "[FILE|-]", "print the registry as JSON, or save it",
     "Prints indented JSON, with an object for each section. \"-\" is standard output.\n"
     "FILE is replaced atomically, even if the power is cut. An existing FILE keeps\n"
     "its owner, group and mode. Only you can read a new FILE.\n",
     false, false, DeclareDump, Dump},
    {"load", "[FILE] [--text] [--replace|--missing-only] [--dry-run] [--force]", "import a document",
     "Reads JSON from FILE, or from standard input without FILE or with \"-\": an object\n"
     "for each section. A string sets a key, null deletes a key or section, {} creates\n"
     "a section. Everything else stays unchanged. Either all changes are made or none,\n"
     "and the daemon writes its file at once. Errors name the line.\n"
     "\n"
     "  --text           read the form that \"show\" prints instead of JSON\n"
     "  --replace        delete everything that is not in the document\n"
     "  --missing-only   set only keys that do not exist. A change that another\n"
     "                   program makes at the same moment may be overwritten\n"
     "  --dry-run        change nothing; print what would change\n"
     "  --force          load even what the daemon would lose at its next start\n",
     false, false, DeclareLoad, Load},
    {"edit", "[SECTION] [--force]", "change the registry in an editor",
     "Opens $VISUAL, $EDITOR or vi with the output of \"show\". With SECTION, only that\n"
     "section can be changed. Prints your changes and makes only those, in one step.\n"
     "Changes nothing if the text is empty, if it has an error, or if another program\n"
     "has changed the same keys. On a terminal, it then asks whether to edit again.\n"
     "If the changes cannot be made, it keeps the text and prints its path.\n"
     "\n"
     "  --force          accept even what the daemon would lose at its next start\n",
     false, false, DeclareEdit, Edit},
    {"diff", "FILE", "compare the registry with a JSON document",
     "Prints what \"load --replace FILE\" would change: \"-\" marks lines that would be\n"
     "removed, \"+\" lines that would be added. The exit status is 0 if there is no\n"
     "difference and 1 if there is one. \"-\" reads standard input.\n",
     false, false, DeclareDiff, Diff},
    {"watch", "[SECTION [KEY]] [-i SECONDS] [--exec COMMAND]", "print changes as they are seen",
     "Reads the registry every second and prints the differences from the last read:\n"
     "\"-\" marks old values, \"+\" new values. A change that is undone before the next\n"
     "read is not seen. If the daemon stops, waits until it runs again.\n"
     "\n"
     "  -i SECONDS       read the registry every SECONDS seconds; decimals are allowed\n"
     "  --json           print each change as an object on one line: section, key,\n"
     "                   before and after; a missing value is null\n"
     "  --exec COMMAND   do not print the lines: run COMMAND with /bin/sh, with the\n"
     "                   lines on its standard input. COMMAND runs once for all\n"
     "                   changes of a read. The next read follows after it has ended\n",
     false, true, DeclareWatch, Watch},
    {"usage", "[--fail-above PERCENT]", "show how full the registry is",
     "Prints the size of the registry file, in total and for each section. The file\n"
     "can have at most 16383 bytes.\n"
     "\n"
     "  --json                print an object with used, capacity and sections\n"
     "  --fail-above PERCENT  end with status 1 if more than PERCENT of the bytes are\n"
     "                        used: 0 to 100, decimals are allowed\n",
     false, true, DeclareUsage, ShowUsage},
    {"help", "[VERB]", "explain a verb", "\"ledgerctl VERB --help\" prints the same.\n", false, false, DeclareHelp,
     ShowHelp},
}};

const VerbEntry* FindVerb(std::string_view name) {
  const auto* const found =
      std::find_if(kVerbs.begin(), kVerbs.end(), [&](const VerbEntry& entry) { return name == entry.name; });
  return found == kVerbs.end() ? nullptr : found;
}

}  // namespace ledgerctl
