"""The lists in this directory, by_hand and survivors. An entry that no longer fits the code is an error."""
import dataclasses

import generator


class ListError(Exception):
    """A list is wrong, or the code has moved away from it."""


@dataclasses.dataclass
class Entry:
    file: str
    name: str  # of the function, or of the mutant by hand
    old: list = dataclasses.field(default_factory=list)
    new: list = dataclasses.field(default_factory=list)
    text: str = ""  # the reason, or the service tests of the mutant by hand

    @property
    def key(self):
        return self.file, self.name, *(" ".join(" ".join(lines).split()) for lines in (self.old, self.new))

    def mutant(self, text):
        """The entry as a mutant of the file, whose text must have the old lines exactly once."""
        old, new = ("\n".join(lines).encode() for lines in (self.old, self.new))
        if text.count(old) != 1:
            raise ListError(f"{self.name}: its old text is {text.count(old)} times in {self.file}")
        return generator.Mutant(self.file, text.index(old), "by hand", old, new, self.name, 0, 0)


def read(path):
    """The entries of a list: "FILE NAME", the lines that change with "- " and "+ ", and a text."""
    entries = []
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        if line.startswith(("- ", "+ ")) or line in "-+":
            (entries[-1].old if line[0] == "-" else entries[-1].new).append(line[2:])
        elif line.startswith("  "):
            entries[-1].text = f"{entries[-1].text} {line.strip()}".strip()
        elif len(words := line.split()) == 2:
            entries.append(Entry(*words))
        else:
            raise ListError(f"{path.name}:{number}: is not understood: {line}")
    return entries


def show(file, function, old, new):
    """A survivor as the list wants it, without its reason."""
    return "\n".join(line.rstrip() for line in (f"{file} {function}", f"- {old}", f"+ {new}", ""))
