"""The table of mutants: what it says, and whether it still fits the code."""
import dataclasses
import pathlib


class TableError(Exception):
    """The table is wrong, or the code has moved away from it."""


@dataclasses.dataclass
class Mutant:
    name: str
    file: str = ""
    kill: str = ""  # a regular expression for ctest -R
    survives: str = ""  # why no test can see the change
    old: list = dataclasses.field(default_factory=list)
    new: list = dataclasses.field(default_factory=list)

    def add(self, line):
        """Takes a line of the table; false if it means nothing."""
        if line.startswith("-"):
            self.old.append(line[2:])
        elif line.startswith("+"):
            self.new.append(line[2:])
        else:
            word, _, rest = line.partition(" ")
            if word not in ("file", "kill", "survives") or not rest:
                return False
            setattr(self, word, f"{getattr(self, word)} {rest}".strip())
        return True

    def apply(self, text):
        """The file's text with the change. The old text must be in it exactly once."""
        old = "\n".join(self.old)
        count = text.count(old) if old else 0
        if count != 1:
            raise TableError(f"{self.name}: its old text is {count} times in {self.file}")
        changed = text.replace(old, "\n".join(self.new))
        if changed == text:
            raise TableError(f"{self.name}: changes nothing")
        return changed

    def check(self, root):
        if not self.file or not self.kill:
            raise TableError(f"{self.name}: has no line 'file' or 'kill'")
        path = root / self.file
        if not path.is_file():
            raise TableError(f"{self.name}: there is no {self.file}")
        self.apply(path.read_text())


def read_file(path, mutants):
    mutant = None
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        if line.startswith("[") and line.endswith("]"):
            mutant = Mutant(line[1:-1])
            if mutant.name in mutants:
                raise TableError(f"{mutant.name}: is in the table twice")
            mutants[mutant.name] = mutant
        elif mutant is None or not mutant.add(line):
            raise TableError(f"{path.name}:{number}: is not understood: {line}")


def read(folder, root):
    """All mutants of the folder's files, each checked against the code under `root`."""
    mutants = {}
    for path in sorted(pathlib.Path(folder).glob("*.txt")):
        read_file(path, mutants)
    for mutant in mutants.values():
        mutant.check(root)
    return mutants
