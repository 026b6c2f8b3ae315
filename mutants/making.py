"""Makes the list of all mutants: small mistakes at real expressions and statements, found by a compiler's own parser.

    mutants, includers = make(root, builds)

`mutants` are all there are, in the order of the files; `includers` names, by file, the sources that are compiled anew
when it changes.

A mutant is known by its key: file, function, kind, what was and what is there, and which of several alike it is in that
function. It has no line number, so it stays the same mutant while other functions change.
"""

import collections
import dataclasses
import os
import re

from clang.cindex import CursorKind as Kind
from clang.cindex import Diagnostic, Index

# The bootloader, and the platform that it is delivered with. Not what declares the seam (platform/include): the bench
# is compiled against it too. Not the picture's array, which `fixture splash encode` writes.
FOLDERS = ("src/", "bsp/", "platform/at91sam9263/", "platform/common/")
EXCLUDED = ("src/Images.cpp",)

OTHERS = {
    "<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<="), ">=": (">", "<"), "==": ("!=",), "!=": ("==",),
    "+": ("-",), "-": ("+",), "*": ("/",), "/": ("*",), "%": ("*",), "<<": (">>",), ">>": ("<<",),
    "&": ("|",), "|": ("&",), "^": ("|",), "&&": ("||",), "||": ("&&",),
    "+=": ("-=",), "-=": ("+=",), "*=": ("/=",), "/=": ("*=",), "%=": ("*=",), "<<=": (">>=",), ">>=": ("<<=",),
    "&=": ("|=",), "|=": ("&=",), "^=": ("|=",),
}  # fmt: skip
OTHERS_OF_ONE = {"++": ("--",), "--": ("++",), "!": ("",), "~": ("",), "-": ("",)}

FUNCTIONS = (Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR, Kind.FUNCTION_TEMPLATE)
# Nobody runs what these hold, or no mistake in it compiles.
PASSED_OVER = (Kind.STATIC_ASSERT, Kind.ASM_STMT, Kind.ANNOTATE_ATTR, Kind.UNEXPOSED_ATTR)
# Statements that a mutant can leave out. The end of their text is in front of the semicolon, which stays.
DROPPED = (Kind.CALL_EXPR, Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR, Kind.UNARY_OPERATOR,
           Kind.BREAK_STMT, Kind.CONTINUE_STMT, Kind.ASM_STMT)  # fmt: skip
NUMBER = re.compile(r"(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)")
# What stands in a text for something else: an escape, a conversion.
ESCAPE = r"\\(?:x[0-9a-fA-F]+|[0-7]{1,3}|.)|%[-+ #0-9.]*[a-zA-Z]*"


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    line: int
    column: int
    offset: int
    function: str
    kind: str  # operator, constant, condition, statement, text
    old: str
    new: str
    nth: int = 1  # of those alike in this function

    @property
    def key(self):
        nth = f" #{self.nth}" if self.nth > 1 else ""
        return f"{self.file} {self.function}: {self.kind} {shown(self.old)} -> {shown(self.new)}{nth}"

    @property
    def place(self):
        return f"{self.file}:{self.line}:{self.column}"

    def applied(self, text):
        assert text.startswith(self.old, self.offset), f"{self.place}: the source has changed"
        # As many lines as before, so that an assertion's line number does not make another object.
        new = self.new + "\n" * (self.old.count("\n") - self.new.count("\n"))
        return text[: self.offset] + new + text[self.offset + len(self.old) :]


def shown(text):
    return "`" + " ".join(text.split()) + "`" if text else "nothing"


class Walk:
    """The mutants of one parsed source and of the headers that it includes."""

    def __init__(self, texts):
        self.texts = texts  # by file: what may be mutated
        self.found = {}  # by file, offset, old, new: headers are met many times

    def visit(self, cursor, function=""):
        file = cursor.location.file and os.path.normpath(cursor.location.file.name)
        if function == "" and cursor.kind != Kind.TRANSLATION_UNIT and file not in self.texts:
            return  # a library's header, most of all there is
        if cursor.kind in PASSED_OVER:
            return
        if cursor.kind in FUNCTIONS:
            function = cursor.spelling
        elif cursor.kind == Kind.VAR_DECL and function == "":
            function = cursor.spelling
        children = list(cursor.get_children())
        if file in self.texts:
            for offset, kind, old, new in self.mistakes(cursor, children, self.texts[file]):
                self.add(file, offset, function, kind, old, new)
        for child in children:
            self.visit(child, function)

    def add(self, file, offset, function, kind, old, new):
        text = self.texts[file]
        file = os.path.relpath(file, self.texts.root)
        line = text.count("\n", 0, offset) + 1
        column = offset - text.rfind("\n", 0, offset)
        mutant = Mutant(file, line, column, offset, function or "(declarations)", kind, old, new)
        self.found.setdefault((file, offset, old, new), mutant)

    def mistakes(self, cursor, children, text):
        rule = RULES.get(cursor.kind)
        if rule:
            yield from rule(cursor, children, text)
        for body in bodies(cursor, children):
            yield from dropped(body, text)


def span(cursor):
    return cursor.extent.start.offset, cursor.extent.end.offset


def operator(cursor, children, text):
    """An operator is what stands between its operands, or beside its only one."""
    begin, end = span(cursor)
    if len(children) == 2:
        begin, end = span(children[0])[1], span(children[1])[0]
    else:
        inner_begin, inner_end = span(children[0])
        begin, end = (begin, inner_begin) if inner_begin > begin else (inner_end, end)
    begin += len(text[begin:end]) - len(text[begin:end].lstrip())
    sign = text[begin:end].strip()
    for other in (OTHERS if len(children) == 2 else OTHERS_OF_ONE).get(sign, ()):
        yield begin, "operator", sign, other


def number(cursor, _, text):
    begin, end = span(cursor)
    found = NUMBER.fullmatch(text[begin:end])
    if not found:
        return  # a macro's
    value = int(found[1], 8 if re.fullmatch("0[0-7]+", found[1]) else 0)
    for other in {value + 1, abs(value - 1)}:
        form = f"0x{other:X}" if found[1][:2] in ("0x", "0X") else str(other)
        yield begin, "constant", found[0], form + found[2]


def truth(cursor, _, text):
    begin, end = span(cursor)
    if text[begin:end] in ("true", "false"):
        yield begin, "constant", text[begin:end], "false" if text[begin:end] == "true" else "true"


def character(cursor, _, text):
    begin, end = span(cursor)
    found = re.fullmatch(r"'([ -~])'", text[begin:end])
    if found and found[1] not in "\\'":
        yield begin, "constant", found[0], "'" + next_letter(found[1]) + "'"


def next_letter(letter):
    return {"z": "a", "Z": "A", "9": "0"}.get(letter) or (chr(ord(letter) + 1) if letter.isalnum() else "x")


def words(cursor, _, text):
    """One letter of a text changed; the text empty; its last line's end left out."""
    begin, end = span(cursor)
    old = text[begin:end]
    if not re.fullmatch(r'"(?:[^"\\]|\\.)+"', old):
        return  # a macro's, or several that stand in a row
    letters = [m for m in re.finditer(ESCAPE + "|[A-Za-z0-9]", old) if len(m[0]) == 1 and m[0] != "%"]
    if letters:
        middle = letters[len(letters) // 2]
        yield begin, "text", old, old[: middle.start()] + next_letter(middle[0]) + old[middle.end() :]
    yield begin, "text", old, '""'
    if old.endswith('\\n"') and old != '"\\n"':
        yield begin, "text", old, old[:-3] + '"'


def condition_of(cursor, children, text):
    if cursor.kind == Kind.DO_STMT:
        return children[-1]
    if cursor.kind == Kind.FOR_STMT:
        # Any of the three may be missing: the condition stands between the semicolons.
        for child in children:
            begin, end = span(child)
            if text[:begin].rstrip().endswith(";") and text[end:].lstrip().startswith(";"):
                return child
        return None
    return next((child for child in children if child.kind.is_expression()), None)


def condition(cursor, children, text):
    chosen = condition_of(cursor, children, text)
    if chosen is None:
        return
    begin, end = span(chosen)
    for other in ("true", "false"):
        if text[begin:end] != other:
            yield begin, "condition", text[begin:end], other


def choice(cursor, children, text):
    yield from condition(cursor, children[:1], text)


def bodies(cursor, children):
    """The children that are statements, not parts of an expression."""
    if cursor.kind in (Kind.COMPOUND_STMT, Kind.CASE_STMT, Kind.DEFAULT_STMT):
        return children
    if cursor.kind == Kind.IF_STMT:
        return children[1:]
    if cursor.kind in (Kind.WHILE_STMT, Kind.FOR_STMT, Kind.CXX_FOR_RANGE_STMT):
        return children[-1:]
    return ()


def dropped(statement, text):
    inner = statement
    while inner.kind == Kind.UNEXPOSED_EXPR and len(list(inner.get_children())) == 1:
        inner = next(inner.get_children())
    begin, end = span(statement)
    empty_return = inner.kind == Kind.RETURN_STMT and not list(inner.get_children())
    if (inner.kind in DROPPED or empty_return) and text[end:].lstrip().startswith(";"):
        yield begin, "statement", text[begin:end], ""


RULES = {
    Kind.BINARY_OPERATOR: operator,
    Kind.COMPOUND_ASSIGNMENT_OPERATOR: operator,
    Kind.UNARY_OPERATOR: operator,
    Kind.INTEGER_LITERAL: number,
    Kind.CXX_BOOL_LITERAL_EXPR: truth,
    Kind.CHARACTER_LITERAL: character,
    Kind.STRING_LITERAL: words,
    Kind.IF_STMT: condition,
    Kind.WHILE_STMT: condition,
    Kind.FOR_STMT: condition,
    Kind.DO_STMT: condition,
    Kind.CONDITIONAL_OPERATOR: choice,
}


def assembly(text):
    """Each instruction left out, each immediate changed."""
    for line in re.finditer(r"^(?:\d+:)?\s+([a-z]\w*\s+[^@\n]*[^@\s])", text, re.MULTILINE):
        yield line.start(1), "statement", line[1], ""
        for immediate in re.finditer(r"(?<=#)(0x[0-9A-F]+|\d+)", line[1]):
            other = f"0x{int(immediate[0], 0) + 1:X}" if immediate[0].startswith("0x") else str(int(immediate[0]) + 1)
            yield line.start(1) + immediate.start(), "constant", immediate[0], other


def is_mutated(file):
    return file.startswith(FOLDERS) and file not in EXCLUDED


def numbered(mutants):
    """Those alike in one function told apart."""
    counts = collections.Counter()
    for mutant in mutants:
        counts[mutant.key] += 1
        yield dataclasses.replace(mutant, nth=counts[mutant.key])


def make(root, builds):
    """See above. Throws where the parser does not understand a source: it would find fewer mutants than there are."""
    sources = {}  # by source: the build that says how it is compiled
    for build in builds:
        for source in build.objects:
            sources.setdefault(source, build)
    texts = Texts(root)
    walk = Walk(texts)
    includers = collections.defaultdict(list)
    for source, build in sorted(sources.items()):
        includers[source].append(source)
        if source.endswith(".S"):
            for mistake in assembly(texts[os.path.join(root, source)]):
                walk.add(os.path.join(root, source), mistake[0], "(assembly)", *mistake[1:])
            continue
        unit = Index.create().parse(os.path.join(root, source), args=build.parser_arguments(source))
        errors = [str(told) for told in unit.diagnostics if told.severity >= Diagnostic.Error]
        if errors:
            raise RuntimeError("the parser cannot read " + source + ": " + errors[0])
        for header in {os.path.normpath(one.include.name) for one in unit.get_includes()}:
            includers[os.path.relpath(header, root)].append(source)
        walk.visit(unit.cursor)
    found = sorted(walk.found.values(), key=lambda mutant: (mutant.file, mutant.offset, mutant.new))
    return list(numbered(found)), includers


class Texts(dict):
    """The texts of the files that may be mutated, by their paths."""

    def __init__(self, root):
        for folder in FOLDERS:
            for place, _, names in os.walk(os.path.join(root, folder)):
                for path in (os.path.join(place, name) for name in sorted(names)):
                    if path.endswith((".cpp", ".h", ".S")) and is_mutated(os.path.relpath(path, root)):
                        with open(path, encoding="utf-8") as file:
                            self[path] = file.read()
        self.root = root
