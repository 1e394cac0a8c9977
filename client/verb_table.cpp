#include "client/verb_table.h"

#include <algorithm>

#include "client/verb_options.h"

namespace ledgerctl {

const std::array<VerbEntry, 15> kVerbs = {{
    {"get", "SECTION KEY [--default VALUE]", "print a value",
     "Prints the value unchanged, and a newline. Fails with status 1 if the key does\n"
     "not exist. An empty value is a value.\n"
     "\n"
     "  -0, --null       print a NUL byte instead of the newline\n"
     "  --json           print a JSON string\n"
     "  --default VALUE  print VALUE if the key does not exist\n",
     true, true, DeclareGet, Get},
    {"set", "[--flush] [--force] SECTION KEY VALUE [KEY VALUE]...", "set values",
     "Creates a missing section and missing keys. The daemon writes its file 60\n"
     "seconds after the first change. Several pairs are one change: all of them are\n"
     "set or none, and the daemon writes its file at once.\n"
     "\n"
     "Options precede SECTION. Each word after SECTION is literal, also \"-5\", \"-h\" and\n"
     "\"--json\". The VALUE \"-\" is standard input, all bytes of it. After \"--\" before\n"
     "SECTION, it is literal too, and a KEY can have \"=\" in it. A KEY that is given\n"
     "twice is refused; upper case counts as lower case.\n"
     "\n"
     "Fails with status 3 if the next start of the daemon would lose a key: one that\n"
     "begins with \"[\", or the empty one with an empty value. A value with a NUL byte\n"
     "always fails with status 3, because D-Bus cannot carry it.\n"
     "\n"
     "  --flush          make the daemon write its file at once\n"
     "  --force          set what the next start would lose, and warn\n",
     false, false, DeclareSet, Set},
    {"exists", "SECTION [KEY]", "report whether a section or key exists",
     "Prints nothing. The exit status is 0 for yes and 1 for no.\n"
     "\n"
     "  --json           print true or false as well\n",
     false, true, DeclareExists, Exists},
    {"list", "[SECTION]", "list the sections, or the keys of one",
     "Prints one name per line, in ascending byte order. On a terminal, a name with\n"
     "characters other than letters, digits and _@%+:,./- is quoted for a shell.\n"
     "\n"
     "  -0, --null       end each name with a NUL byte: names may have newlines\n"
     "  --json           print an array of strings\n",
     true, true, DeclareSection, List},
    {"show", "[SECTION]", "show keys and values, for people",
     "Prints \"[section]\" and \"key=value\" lines. Names and values are quoted for a\n"
     "shell, as $'...' if they have control characters.\n"
     "\n"
     "  --json           print an object of objects of strings; with SECTION, an\n"
     "                   object of strings\n",
     false, true, DeclareSection, Show},
    {"unset", "SECTION KEY | -r SECTION", "delete a key or a whole section",
     "Fails with status 1 if it does not exist. A section remains without its last\n"
     "key.\n"
     "\n"
     "  -r               delete the section with all its keys\n",
     false, false, DeclareUnset, Unset},
    {"clear", "--yes", "delete everything",
     "Deletes all sections. \"ledgerctl dump FILE\" makes a copy first.\n"
     "\n"
     "  --yes            confirm\n",
     false, false, DeclareClear, Clear},
    {"flush", "[--sync]", "have the registry written to its file now",
     "Without it the daemon writes 60 seconds after the first change. A file that is\n"
     "written but not synced can still be lost in a power cut.\n"
     "\n"
     "  --sync           then sync the file system that the file is on\n",
     false, false, DeclareFlush, Flush},
    {"dump", "[FILE|-]", "print the registry as JSON, or save it",
     "An indented object of objects of strings. FILE is replaced in one step: it has\n"
     "the old text or the new one, also after a power cut. An existing FILE keeps its\n"
     "owner, group and mode; only you can read a new one. \"-\" is standard output.\n",
     false, false, DeclareDump, Dump},
    {"load", "[FILE] [--text] [--replace|--missing-only] [--dry-run] [--force]", "import a document",
     "Reads FILE, or standard input without FILE or with \"-\": a JSON object of objects\n"
     "of strings. A string sets a key, null deletes a key or section, {} makes a\n"
     "section. What the document does not name stays. All of it happens or nothing,\n"
     "and the daemon writes its file at once. A mistake is reported with its line.\n"
     "\n"
     "  --text           read the form that \"show\" prints instead of JSON\n"
     "  --replace        delete what the document does not name\n"
     "  --missing-only   set only keys that are missing. A change that somebody else\n"
     "                   makes at the same moment can be overwritten\n"
     "  --dry-run        change nothing; print what would change\n"
     "  --force          load also what the daemon loses when it starts again\n",
     false, false, DeclareLoad, Load},
    {"edit", "[SECTION] [--force]", "change the registry in an editor",
     "Opens $VISUAL, $EDITOR or vi on what \"show\" prints; with SECTION only that\n"
     "section can be changed. Prints the changes and makes them in one step, and\n"
     "nothing else. Changes nothing if the text is empty, if it has a mistake, or if\n"
     "somebody else has changed the same meanwhile. On a terminal, it then asks\n"
     "whether to edit again. If it cannot make the changes, it keeps the text and\n"
     "prints its path.\n"
     "\n"
     "  --force          accept also what the daemon loses when it starts again\n",
     false, false, DeclareEdit, Edit},
    {"diff", "FILE", "compare the registry with a JSON document",
     "Prints what \"load --replace FILE\" would change: lines with \"-\" are removed,\n"
     "lines with \"+\" are added. The exit status is 0 if they are the same and 1 if\n"
     "not. \"-\" reads standard input.\n",
     false, false, DeclareDiff, Diff},
    {"watch", "[SECTION [KEY]] [-i SECONDS] [--exec COMMAND]", "print changes as they are seen",
     "Reads the registry every second and prints what has changed since the last time:\n"
     "\"-\" and the old value, \"+\" and the new one. A change that is undone before the\n"
     "next read is not seen. Waits for a daemon that is stopped. Ends with Ctrl-C.\n"
     "\n"
     "  -i SECONDS       read that often; decimals are allowed\n"
     "  --json           print an object for each change, on one line, with section,\n"
     "                   key, before and after; null if there is none\n"
     "  --exec COMMAND   do not print the lines: run COMMAND with /bin/sh and give it\n"
     "                   the lines on its standard input. COMMAND runs once for all\n"
     "                   changes of a read. The next read follows after its end\n",
     false, true, DeclareWatch, Watch},
    {"usage", "[--fail-above PERCENT]", "show how full the registry is",
     "Counts the bytes of the registry's file, in all and for each section. 16383 are\n"
     "allowed.\n"
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
