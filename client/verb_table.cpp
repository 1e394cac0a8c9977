#include "client/verb_table.h"

#include <algorithm>

#include "client/verb_options.h"

namespace ledgerctl {

const std::array<VerbEntry, 15> kVerbs = {{
    {"get", "SECTION KEY [--default VALUE]", "print a value",
     "Prints the value as it is, and a line feed. Where there is no such key it fails\n"
     "with status 1, or prints VALUE; an empty value is a value.\n"
     "\n"
     "  -0, --null       end in a NUL byte instead of the line feed\n"
     "  --json           print a JSON string\n"
     "  --default VALUE  print VALUE where there is no such key\n",
     true, true, DeclareGet, Get},
    {"set", "SECTION KEY VALUE [--flush]", "set a value",
     "Makes the section and the key if they are missing. The value \"-\" stands for\n"
     "standard input, byte for byte, the last line feed included. The daemon writes\n"
     "its file 60 seconds after the first change.\n"
     "\n"
     "  --flush          have the file written at once\n",
     false, false, DeclareSet, Set},
    {"exists", "SECTION [KEY]", "tell whether there is a section or key",
     "Prints nothing; the exit status is 0 for yes and 1 for no.\n"
     "\n"
     "  --json           print true or false as well\n",
     false, true, DeclareExists, Exists},
    {"list", "[SECTION]", "list the sections, or a section's keys",
     "One name to a line, in ascending byte order. On a terminal, names that hold\n"
     "other characters than letters, digits and _@%+:,./- are quoted for a shell.\n"
     "\n"
     "  -0, --null       end each name in a NUL byte: names may hold line feeds\n"
     "  --json           print an array of strings\n",
     true, true, DeclareSection, List},
    {"show", "[SECTION]", "show keys and values, for people",
     "\"[section]\" and \"key=value\" lines; names and values are quoted as a shell needs\n"
     "it, with $'...' where they hold control characters.\n"
     "\n"
     "  --json           print an object of objects of strings; with SECTION, an\n"
     "                   object of strings\n",
     false, true, DeclareSection, Show},
    {"unset", "SECTION KEY | -r SECTION", "delete a key or a whole section",
     "Fails with status 1 where there is none. A section stays when its last key goes.\n"
     "\n"
     "  -r               delete the section with all its keys\n",
     false, false, DeclareUnset, Unset},
    {"clear", "--yes", "delete everything",
     "Deletes all sections. \"ledgerctl dump FILE\" makes a copy before.\n"
     "\n"
     "  --yes            confirms that it is meant\n",
     false, false, DeclareClear, Clear},
    {"flush", "[--sync]", "have the registry written to its file now",
     "Without it the daemon writes 60 seconds after the first change. A file that is\n"
     "written but not synced can still be lost in a power cut.\n"
     "\n"
     "  --sync           then sync the file system that the file is on\n",
     false, false, DeclareFlush, Flush},
    {"dump", "[FILE|-]", "print the registry as JSON, or save it",
     "An indented object of objects of strings. FILE is replaced in one step: it has\n"
     "the old text or the new one, also after a power cut. \"-\" is standard output.\n",
     false, false, DeclareDump, Dump},
    {"load", "[FILE|-] [--replace | --missing-only] [--dry-run]", "take in a JSON document",
     "Reads FILE or standard input: an object of objects of strings. A string sets a\n"
     "key, null deletes a key or section, what is not named stays. Either all of it\n"
     "happens or nothing, and the daemon writes its file at once.\n"
     "\n"
     "  --replace        delete what the document does not name\n"
     "  --missing-only   set only keys that are missing. What others change between\n"
     "                   the look and the change is overwritten\n"
     "  --dry-run        change nothing; print what would change\n",
     false, false, DeclareLoad, Load},
    {"edit", "[SECTION]", "change the registry in an editor",
     "Opens $VISUAL, $EDITOR or vi on what \"show\" prints. Prints what was changed and\n"
     "changes that and nothing else, in one step, unless somebody else has changed the\n"
     "same in the meantime. If that or anything else behind the editor stops it, your\n"
     "text is kept, and a message says where.\n",
     false, false, DeclareSection, Edit},
    {"diff", "FILE", "compare the registry with a JSON document",
     "Prints what \"load --replace FILE\" would change: lines with \"-\" go, lines with\n"
     "\"+\" come. The exit status is 0 if there is nothing and 1 if there is. \"-\" reads\n"
     "standard input.\n",
     false, false, DeclareDiff, Diff},
    {"watch", "[SECTION [KEY]] [-i SECONDS]", "print changes as they are seen",
     "Asks for the registry every second and prints what is different from the time\n"
     "before: lines with \"-\" went, lines with \"+\" came. A change that is undone in\n"
     "between is not seen. Ends with Ctrl-C.\n"
     "\n"
     "  -i SECONDS       ask that often; decimals are allowed\n",
     false, false, DeclareWatch, Watch},
    {"usage", "", "show how full the registry is",
     "Counts the bytes of the registry's file, of which 16383 are allowed, in all and\n"
     "for each section.\n"
     "\n"
     "  --json           print an object with used, capacity and sections\n",
     false, true, DeclareNothing, ShowUsage},
    {"help", "[VERB]", "explain a verb", "Also \"ledgerctl VERB --help\".\n", false, false, DeclareHelp, ShowHelp},
}};

const VerbEntry* FindVerb(std::string_view name) {
  const auto* const found =
      std::find_if(kVerbs.begin(), kVerbs.end(), [&](const VerbEntry& entry) { return name == entry.name; });
  return found == kVerbs.end() ? nullptr : found;
}

}  // namespace ledgerctl
