"""Makes the mutants of a source: small changes of its operators, constants, conditions, statements and arguments."""
import dataclasses
import json
import re
import shlex

from clang import cindex
from clang.cindex import CursorKind as Kind

from view import ROOT

FUNCTIONS = (Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR, Kind.CONVERSION_FUNCTION,
             Kind.FUNCTION_TEMPLATE)
CONDITIONS = (Kind.IF_STMT, Kind.WHILE_STMT, Kind.DO_STMT, Kind.CONDITIONAL_OPERATOR)
LABELS = (Kind.CASE_STMT, Kind.DEFAULT_STMT)
# Only a constant's value is changed there, and the compiler would refuse most changes.
DECLARATIONS = (Kind.STATIC_ASSERT, Kind.ENUM_DECL, Kind.ALIGNED_ATTR, Kind.PARM_DECL)
# The arguments of these are parts of a text for people, or only save time.
UNTOUCHED_CALLS = ("SafePrint", "reserve")
SYMMETRIC = ("min", "max")

COMPARISONS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
LOGIC = {"&&": "||", "||": "&&"}
BOOLEANS = {"true": "false", "false": "true"}
INTEGER = re.compile(r"(0x[0-9a-f]+|[0-9]+)([ul]*)", re.IGNORECASE)
MACRO = re.compile(rb"[A-Z_]{4,}\(")
# Statements that only save time, or do nothing on the processors that we know.
WITHOUT_EFFECT = re.compile(rb"static_cast<void>|va_end\(|[\w.]+(\.|->)reserve\(")
OPERATOR_CALL = re.compile(r"operator\W")


class GeneratorError(Exception):
    """The source cannot be read."""


@dataclasses.dataclass(frozen=True, order=True)
class Mutant:
    file: str
    offset: int  # in bytes
    kind: str
    old: bytes
    new: bytes
    function: str
    line: int
    column: int

    def apply(self, text):
        return text[:self.offset] + self.new + text[self.offset + len(self.old):]

    def change(self, text):
        """The lines that change, before and after, independent of where they are and of how they are indented."""
        begin = text.rfind(b"\n", 0, self.offset) + 1
        end = text.find(b"\n", self.offset + len(self.old))
        after = self.apply(text)
        end_after = end + len(after) - len(text)
        return tuple(" ".join(lines.decode().split()) for lines in (text[begin:end], after[begin:end_after]))


@dataclasses.dataclass
class Layout:
    """Where changes can be made at run time, as ranges of bytes."""
    bodies: list  # of functions, outermost first, with their braces
    statements: list  # of bodies
    constants: list  # outside functions


def next_integer(word):
    digits, suffix = INTEGER.fullmatch(word).groups()
    if digits.lower().startswith("0x"):
        return f"{int(digits, 16) + 1:#x}{suffix}"
    if digits.startswith("0") and digits != "0":
        return f"0{int(digits, 8) + 1:o}{suffix}"
    return f"{int(digits) + 1}{suffix}"


class Generator:
    """Of one source. The syntax tree says where code is; most changes are then those of a token."""

    def __init__(self, path, text, unit):
        self.path = path
        self.text = text
        self.unit = unit
        self.code = []  # (begin, end, function)
        self.excluded = []  # (begin, end)
        self.found = {}
        self.layout = Layout([], [], [])

    def range(self, cursor):
        """Of a macro's expansion, the range is that of its use."""
        return cursor.extent.start.offset, cursor.extent.end.offset

    def function(self, offset):
        """The name of the function around the offset, None outside code."""
        if any(begin <= offset < end for begin, end in self.excluded):
            return None
        inner = [(begin, name) for begin, end, name in self.code if begin <= offset < end]
        return max(inner)[1] if inner else None

    def add(self, kind, begin, end, new):
        function = self.function(begin)
        old = self.text[begin:end]
        if function is None or old == new or (begin, old, new) in self.found:
            return
        line = self.text.count(b"\n", 0, begin) + 1
        column = begin - self.text.rfind(b"\n", 0, begin)
        self.found[begin, old, new] = Mutant(self.path, begin, kind, old, new, function, line, column)

    def walk(self, cursor):
        """Collects where code is."""
        begin, end = self.range(cursor)
        if cursor.kind in FUNCTIONS or cursor.kind == Kind.LAMBDA_EXPR:
            self.add_bodies(cursor, begin)
        if cursor.kind in DECLARATIONS or cursor.kind == Kind.CALL_EXPR and cursor.spelling in UNTOUCHED_CALLS:
            self.excluded.append((begin + len(cursor.spelling), end))
        elif cursor.kind in FUNCTIONS and cursor.is_definition():
            # A constructor's initialisers are before its body.
            parts = [self.range(child)[0] for child in cursor.get_children()
                     if child.kind not in (Kind.PARM_DECL, Kind.NAMESPACE_REF, Kind.TYPE_REF, Kind.TEMPLATE_REF)
                     and self.range(child)[0] > cursor.location.offset]
            self.code.append((min(parts, default=end), end, cursor.spelling))
        elif cursor.kind == Kind.VAR_DECL:
            first = self.text.find(b"=", begin, end)
            name_end = cursor.location.offset + len(cursor.spelling)
            if cursor.type.get_canonical().kind == cindex.TypeKind.CONSTANTARRAY:
                # The size of an array is no behaviour of its own.
                self.excluded.append((name_end, first if first >= 0 else end))
            self.code.append((name_end, end, self.function(begin) or cursor.spelling))
            if not any(body[0] <= begin < body[1] for body in self.layout.bodies):
                self.layout.constants.append((begin, end))
        for child in cursor.get_children():
            self.walk(child)

    def add_bodies(self, cursor, begin):
        for child in cursor.get_children():
            first, end = self.range(child)
            outer = any(outer[0] <= first < outer[1] for outer in self.layout.bodies)
            if child.kind == Kind.COMPOUND_STMT and not outer and b"constexpr" not in self.text[begin:first]:
                self.layout.bodies.append((first, end))

    def visit(self, cursor, parent):
        """Makes the changes that need to know types or where an expression ends."""
        children = list(cursor.get_children())
        if cursor.kind in CONDITIONS:
            self.negate_condition(cursor, children)
        elif cursor.kind == Kind.RETURN_STMT:
            for child in children:
                if child.type.get_canonical().kind == cindex.TypeKind.BOOL:
                    self.negate(*self.range(child))
        elif cursor.kind == Kind.CALL_EXPR:
            self.swap_arguments(cursor)
        if parent.kind in (Kind.COMPOUND_STMT, *LABELS) and cursor.kind not in LABELS:
            self.layout.statements.append(self.range(cursor))
            self.drop(cursor)
        # What follows a label is its last child.
        for child in children[-1 if cursor.kind in LABELS else 0:]:
            self.visit(child, cursor)

    def drop(self, cursor):
        begin, end = self.range(cursor)
        is_macro = MACRO.match(self.text[begin:end])
        if not cursor.kind.is_expression() and not is_macro and not self.is_guard(cursor, end):
            return
        end = self.text.find(b";", end - 1) + 1
        if not WITHOUT_EFFECT.match(self.text[begin:end]):
            self.add("statement", begin, end, b"")

    def is_guard(self, cursor, end):
        """Whether the statement makes a variable that only its destructor uses."""
        if cursor.kind != Kind.DECL_STMT:
            return False
        names = [child.spelling.encode() for child in cursor.get_children() if child.kind == Kind.VAR_DECL]
        limit = min((code[1] for code in self.code if code[0] < end <= code[1]), default=end)
        return len(names) == 1 and not re.search(rb"\b%s\b" % names[0], self.text[end:limit])

    def negate(self, begin, end):
        condition = self.text[begin:end]
        if MACRO.match(condition):
            return
        # Of these the token's own change says the same.
        if re.search(rb"&&|\|\|", condition) or not re.search(rb" [!=]= |^!|^(true|false)$", condition):
            self.add("condition", begin, end, b"!(" + condition + b")")

    def negate_condition(self, cursor, children):
        begin, end = self.range(next(child for child in children if child.kind.is_expression()))
        declared = next((child for child in children if child.kind == Kind.VAR_DECL), None)
        if cursor.kind == Kind.IF_STMT and declared:
            end = self.range(declared)[1]
            self.add("condition", end, end, b"; !" + declared.spelling.encode())
        elif begin != self.range(cursor)[0] or cursor.kind == Kind.CONDITIONAL_OPERATOR:
            # A condition that begins with its statement is in a macro.
            self.negate(begin, end)

    def swap_arguments(self, cursor):
        if OPERATOR_CALL.match(cursor.spelling) or cursor.spelling in SYMMETRIC:
            return
        arguments = list(cursor.get_arguments())
        for left, right in zip(arguments, arguments[1:]):
            types = {each.type.get_canonical().spelling.replace("const ", "").rstrip("& ") for each in (left, right)}
            (begin, left_end), (right_begin, end) = self.range(left), self.range(right)
            if len(types) == 1 and begin < left_end < right_begin < end:
                text = self.text
                self.add("arguments", begin, end,
                         text[right_begin:end] + text[left_end:right_begin] + text[begin:left_end])

    def change_tokens(self):
        tokens = [token for token in self.unit.get_tokens(extent=self.unit.cursor.extent)
                  if token.kind != cindex.TokenKind.COMMENT]
        for i, token in enumerate(tokens):
            word, begin, end = token.spelling, token.extent.start.offset, token.extent.end.offset
            # The formatter puts spaces around an operator, and none around a bracket or a reference.
            is_operator = self.text[begin - 1:begin].isspace() and self.text[end:end + 1].isspace()
            if word in COMPARISONS and is_operator:
                self.add("comparison", begin, end, COMPARISONS[word].encode())
            elif word in LOGIC and is_operator:
                self.add("logic", begin, end, LOGIC[word].encode())
            elif word in BOOLEANS:
                self.add("constant", begin, end, BOOLEANS[word].encode())
            elif word == "!":
                self.add("condition", begin, end, b"")
            elif INTEGER.fullmatch(word) and tokens[i - 1].spelling not in ("<", ">="):
                # "< 0" and ">= 0" become "< 1" and ">= 1" by their operators.
                self.add("constant", begin, end, next_integer(word).encode())

    def mutants(self):
        own = [cursor for cursor in self.unit.cursor.get_children()
               if cursor.location.file and cursor.location.file.name == self.unit.spelling]
        for cursor in own:
            self.walk(cursor)
        for cursor in own:
            self.visit(cursor, self.unit.cursor)
        self.change_tokens()
        return sorted(self.found.values()), self.layout


def generate(directory, path):
    """The mutants of the source in the order of their places, and its layout. The build's directory has its options."""
    entries = json.loads((directory / "compile_commands.json").read_text())
    command = next((shlex.split(entry["command"]) for entry in entries if entry["file"] == str(ROOT / path)), None)
    if not command:
        return [], Layout([], [], [])
    # An option and its path are two words of -isystem.
    options = [word for i, word in enumerate(command)
               if word.startswith(("-D", "-I", "-std=", "-isystem")) or command[i - 1] == "-isystem"]
    unit = cindex.Index.create().parse(str(ROOT / path), options)
    errors = [str(note) for note in unit.diagnostics if note.severity >= cindex.Diagnostic.Error]
    if errors:
        raise GeneratorError(errors[0])
    return Generator(path, (ROOT / path).read_bytes(), unit).mutants()
