"""Links a program with a changed source. The build's directory is only read: objects that do not change are its own."""
import json
import pathlib
import shlex
import subprocess

COMPILE_LIMIT = 120
# A mutant may leave a parameter unused, and needs no symbols.
FEWER_OPTIONS = ("-g", "-Werror")


class BuildError(Exception):
    """A source does not compile."""


class Build:
    def __init__(self, directory):
        self.directory = directory
        entries = json.loads((directory / "compile_commands.json").read_text())
        self.sources = {}  # object -> (source, command)
        for entry in entries:
            command = shlex.split(entry["command"])
            self.sources[command[command.index("-o") + 1]] = pathlib.Path(entry["file"]), command
        self._includes = {}  # object -> files
        self.objects = {}

    def ninja(self, *arguments):
        return subprocess.run(["ninja", "-C", self.directory, "-t", *arguments], check=True, text=True,
                              stdout=subprocess.PIPE).stdout

    def includes(self):
        """Object -> the files that it is made of. Only a finished build knows them."""
        if self._includes:
            return self._includes
        current = set()
        for line in self.ninja("deps").splitlines():
            if line.startswith(" "):
                current.add(line.strip())
            else:
                current = self._includes.setdefault(line.partition(":")[0], set())
        return self._includes

    def options(self, path):
        """With what the source is compiled, for another compiler."""
        command = next((command for source, command in self.sources.values() if source == path), ())
        # An option and its path are two words of -isystem.
        return [word for i, word in enumerate(command)
                if word.startswith(("-D", "-I", "-std=", "-isystem")) or command[i - 1] == "-isystem"]

    def changed_objects(self, program, path):
        """The program's objects that are compiled from the file or include it."""
        if program not in self.objects:
            self.objects[program] = [word for word in self.ninja("inputs", program).split() if word in self.sources]
        return [name for name in self.objects[program]
                if self.sources[name][0] == path or str(path) in self.includes().get(name, ())]


class Overlay:
    """A directory for one changed file and the programs that are made of it."""

    def __init__(self, build, root, directory, run):
        self.build = build
        self.root = root
        self.directory = directory
        self.run = run  # (command, limit, directory) -> exit status
        self.path = None
        self.text = None
        self.done = {}

    def change(self, path, text):
        if (path, text) == (self.path, self.text):
            return
        if self.path:
            (self.directory / self.path).unlink()
        self.path = path
        self.text = text
        self.done = {}
        target = self.directory / path
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(text)

    def program(self, path):
        """The path of the program with the change, or of the build's own if the change is not in it."""
        name = str(pathlib.Path(path).relative_to(self.build.directory))
        if name not in self.done:
            objects = self.build.changed_objects(name, self.root / self.path)
            for each in objects:
                self._compile(each)
            self.done[name] = self._link(name, objects) if objects else path
        return self.done[name]

    def _object(self, name):
        return str(self.directory / "objects" / name)

    def _run(self, command):
        if self.run(command, COMPILE_LIMIT, self.build.directory) != 0:
            raise BuildError(shlex.join(command))

    def _compile(self, name):
        target = self._object(name)
        if self.done.get(target):
            return
        pathlib.Path(target).parent.mkdir(parents=True, exist_ok=True)
        source, command = self.build.sources[name]
        changed = self.directory / source.relative_to(self.root)
        words = [word for word in command if word not in FEWER_OPTIONS]
        first = next(i for i, word in enumerate(words) if word.startswith("-I"))
        words[first:first] = [f"-I{self.directory}"]
        words[words.index("-o") + 1] = target
        # Assertions name their file, as in the unchanged program.
        words[-1:] = ["-w", f"-fmacro-prefix-map={self.directory}/=", str(changed if changed.exists() else source)]
        self._run(words)
        self.done[target] = target

    def _link(self, name, objects):
        line = self.build.ninja("commands", "-s", name).removeprefix(": && ").partition(" && ")[0]
        words = shlex.split(line)
        # An object before the archives takes the place of their member.
        missing = [self._object(each) for each in objects if each not in words]
        words = [self._object(word) if word in objects else word for word in words]
        target = self.directory / pathlib.Path(name).name
        place = words.index("-o")
        words[place + 1] = str(target)
        # Service tests know a debug build by its symbols.
        words[place:place] = [*(["-Wl,-S"] if name.startswith("tests/") else []), *missing]
        self._run(words)
        return target
