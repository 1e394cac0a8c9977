"""Writes one source that holds many mutants, of which the environment chooses one when a program starts."""
import re

# What a mutant may change outside functions: the value of an expression.
EXPRESSIONS = ("constant", "condition")


def _inner(ranges, mutant):
    """The innermost of the ranges that the change is in, None if it is in none."""
    end = mutant.offset + len(mutant.old)
    return max((each for each in ranges if each[0] <= mutant.offset and end <= each[1]), default=None)


class Schemata:
    """The mutants have numbers from 1. Those that cannot be chosen at run time, or are refused, are left out."""

    def __init__(self, path, text, layout, mutants):
        self.path = path
        self.text = text
        self.layout = layout
        self.mutants = dict(enumerate(mutants, 1))
        self.lines = {}  # number -> the lines that it is on, for those that are not left out
        self.recorded = set()  # the numbers of those that record whether they are reached

    def write(self):
        """The text, also if no mutant is left."""
        output = b""
        self.lines = {}
        self.recorded = set()
        position = 0
        for begin, end, pieces in sorted(self._replacements(), key=lambda each: each[0]):
            output += self.text[position:begin]
            position = end
            for number, piece in pieces:
                first = output.count(b"\n") + 1
                output += piece
                if number:
                    self.lines[number] = range(first, first + piece.count(b"\n") + 1)
        return output + self.text[position:]

    def refuse(self, errors):
        """Leaves out what the compiler's errors name. Returns whether anything was left to be refused."""
        lines = {int(line) for line in re.findall(rb"%b:(\d+):" % re.escape(str(self.path).encode()), errors)}
        refused = {number for number, own in self.lines.items() if not lines.isdisjoint(own)} or \
                  {number for number in self.lines if _inner(self.layout.constants, self.mutants[number])} or \
                  set(self.lines)
        self.mutants = {number: mutant for number, mutant in self.mutants.items() if number not in refused}
        return bool(refused)

    def _replacements(self):
        """For ranges of the text (begin, end, what replaces it), which are pairs of a mutant's number and a text."""
        in_body = {}
        end = 0
        for number, mutant in self.mutants.items():
            if body := _inner(self.layout.bodies, mutant):
                in_body.setdefault(body, {})[number] = mutant
            elif mutant.kind in EXPRESSIONS and mutant.offset >= end:
                end = mutant.offset + len(mutant.old)
                yield mutant.offset, end, [
                    (number, b"(ledgerd_mutant == %d ? %b : %b)" % (number, mutant.new, mutant.old))]
        for body, mutants in in_body.items():
            yield *body, list(self._body(*body, mutants))
        for begin, end in self.layout.constants:
            place = self.text.find(b"constexpr ", begin, end)
            if place >= 0 and any(begin <= mutant.offset < end for mutant in self.mutants.values()):
                yield place, place + len(b"constexpr"), [(None, b"const")]

    def _body(self, begin, end, mutants):
        """A copy of the body for each mutant in it, and the unchanged body, which records the mutants it reaches."""
        yield None, b"{ switch (ledgerd_mutant) {\n"
        marks = {}
        for number, mutant in mutants.items():
            after = end + len(mutant.new) - len(mutant.old)
            yield number, b"case %d: %b break;\n" % (number, mutant.apply(self.text)[begin:after])
            statement = _inner(self.layout.statements, mutant) or (begin + 1, end)
            self.recorded.add(number)
            marks.setdefault(statement[0], []).append(b"ledgerd_reached[%d] = " % number)
        text = self.text[begin:end]
        for place, mark in sorted(marks.items(), reverse=True):
            text = text[:place - begin] + b"".join(mark) + b"1; " + text[place - begin:]
        yield None, b"default: %b }}" % text
