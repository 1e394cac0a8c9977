"""The commands that the documents show, with what they print."""

import pathlib
import re
from dataclasses import dataclass

SOURCES = pathlib.Path(__file__).parents[2]
PROMPT = "$ "


@dataclass
class Step:
    """A command and the output that the document has for it."""
    line: int
    command: str
    output: str = ""


def blocks(path):
    """Yields for each literal block the number of the line before it, and its lines without indentation."""
    text = path.read_text()
    fenced = r"(?m)^```\w*\n((?:.*\n)*?)```$"
    indented = r"(?m)^\n((?: {4}.*\n|\n(?= {4}))+)"
    for pattern in (fenced,) if path.suffix == ".scd" else (fenced, indented):
        for match in re.finditer(pattern, text):
            lines = match[1].split("\n")[:-1]
            indentation = min(len(line) - len(line.lstrip()) for line in lines if line.strip())
            before = text.count("\n", 0, match.start(1))
            yield before, [unescape(path, line[indentation:]) for line in lines]


def unescape(path, line):
    """scdoc interprets backslashes in literal blocks too."""
    return re.sub(r"\\(.)", r"\1", line) if path.suffix == ".scd" else line


def transcripts(path):
    """Yields a list of steps for each block that begins with a prompt."""
    for before, lines in blocks(path):
        if not lines[0].startswith(PROMPT):
            continue
        steps = []
        for number, line in enumerate(lines, before + 1):
            if line.startswith(PROMPT):
                steps.append(Step(number, line.removeprefix(PROMPT)))
            elif steps[-1].command.endswith("\\") and not steps[-1].output:
                steps[-1].command += "\n" + line
            else:
                steps[-1].output += line + "\n"
        yield steps


def documents():
    """Returns the documents with a transcript, by their paths in the tree."""
    paths = [*SOURCES.glob("*.md"), *SOURCES.glob("docs/**/*.md"), *SOURCES.glob("docs/**/*.scd")]
    return {str(path.relative_to(SOURCES)): path for path in sorted(paths) if any(transcripts(path))}
