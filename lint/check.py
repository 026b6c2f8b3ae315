#!/usr/bin/env python3
"""What neither the formatter nor the linter sees of the house rules. Prints FILE:LINE: what is wrong; ends with 1 then.

    lint/check.py               all rules
    lint/check.py widths ...    the named ones
"""

import functools
import os
import re
import subprocess
import sys
import tempfile

RULES = []


def rule(function):
    RULES.append(function)
    return function


@functools.cache
def files(*patterns):
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "--", *patterns], check=True,
                            capture_output=True, text=True).stdout
    return [name for name in listed.splitlines() if os.path.exists(name) and not name.startswith("tests/planted/")]


@functools.cache
def lines(name):
    with open(name, encoding="utf-8") as file:
        return file.read().split("\n")


def cpp():
    # The picture's array is written by `fixture splash encode`.
    return [name for name in files("*.cpp", "*.h") if name != "src/Images.cpp"]


@rule
def widths():
    """C++, CMake and scripts at most 120 columns, prose in Markdown 100; tables and code there as wide as they are."""
    scripts = files("*.cmake", "*CMakeLists.txt", "*.sh", "*.py", "*.S", "*.ld", "Makefile", ".ci/*")
    for name in cpp() + scripts:
        for number, line in enumerate(lines(name), 1):
            if len(line) > 120:
                yield name, number, f"{len(line)} columns; at most 120"
    for name in files("*.md"):
        fenced = False
        for number, line in enumerate(lines(name), 1):
            fenced ^= line.startswith("```")
            if not fenced and not line.startswith(("|", "    ", "```")) and len(line) > 100:
                yield name, number, f"{len(line)} columns of prose; at most 100"


# What is wrong, and what to write.
SPELLINGS = [
    # As a step or a statement; where the old value is used, i++ is meant.
    (re.compile(r"(?:^\s*|[;{)] |: |\bfor \(.*, )[A-Za-z_][\w.]*(?:->\w+|\[[^\]]*\])*(?:\+\+|--)(?=[;,)])"),
     "++i, --i"),
    (re.compile(r"//\s*(?:kept|KEPT|Kept on purpose|Kept -)(?=\s*[:,-]|\s+(?:as|on)\b)"), "Kept: and the reason"),
    (re.compile(r"\bNULL\b"), "nullptr"),
    (re.compile(r"^\s*typedef\b"), "using"),
]


@rule
def spellings():
    """One spelling for one thing, in code and comments."""
    for name in cpp():
        for number, line in enumerate(lines(name), 1):
            code = re.sub(r'"(?:[^"\\]|\\.)*"', '""', line)
            for wrong, right in SPELLINGS:
                if wrong.search(code):
                    yield name, number, f"write {right}"


@rule
def header_names():
    """No two headers of which a file system that ignores case would keep one. A platform's own header of a name that
    another has too is meant: the include path chooses."""
    seen = {}
    for name in files("*.h"):
        base = os.path.basename(name)
        other = seen.setdefault(base.lower(), base)
        if other != base:
            yield name, 1, f"differs from {other} by case alone"


# Which folders each may include; "" is a name without a folder, for what the include path chooses. The standard and
# other libraries are written <like this>.
LAYERS = {
    "src": ["", "driver"],
    "bsp": [""],
    "platform": ["", "platform", "fixture"],
    "fixture": ["fixture"],
    "formats": ["formats"],
    "machine": ["machine", "fixture", "formats", "platform"],
    "sweep": ["sweep", "machine", "fixture", "formats", "platform"],
    "tools": ["tools", "sweep", "machine", "fixture", "formats", "platform"],
    "harness": ["harness", "tools", "sweep", "machine", "fixture", "formats", "platform"],
    "fuzz": ["fuzz", "harness", "tools", "sweep", "machine", "fixture", "formats", "platform"],
    "bench": ["bench", "harness", "tools", "sweep", "machine", "fixture", "formats", "platform"],
    "tests": ["tests", "fuzz", "harness", "tools", "sweep", "machine", "fixture", "formats", "platform"],
    "assets": [],
    "examples": [""],
    "lint": ["harness", "tools", "sweep", "machine", "fixture", "formats", "platform", "src"],
}
# Meant all the same: the XML reader's tests call it as what it is; the demo images share a source.
LAYER_EXCEPTIONS = {("tests", "XmlExtractor.h"), ("assets", "../demo-application/hello.S")}


@rule
def layers():
    """Includes name the folder, and a folder includes only what stands below it (docs/architecture.md)."""
    for name in cpp() + files("*.S"):
        top = name.split("/")[0]
        if top not in LAYERS:
            yield name, 1, f"{top}/ is no folder that lint/check.py knows"
            continue
        for number, line in enumerate(lines(name), 1):
            found = re.match(r'\s*#\s*include\s+"([^"]+)"', line)
            if not found or (top, found[1]) in LAYER_EXCEPTIONS:
                continue
            folder = found[1].split("/")[0] if "/" in found[1] else ""
            if folder not in LAYERS[top]:
                yield name, number, f'"{found[1]}": {top}/ includes ' + (
                    ", ".join(f"{each or 'its own'}/" for each in LAYERS[top]) or "libraries alone")
            elif folder and top not in ("src", "bsp") and not os.path.exists(found[1]):
                yield name, number, f'"{found[1]}" is no file of this tree'


@rule
def unused_definitions():
    """Every definition that CMake gives to a target is read somewhere."""
    sources = "\n".join("\n".join(lines(name)) for name in cpp() + files("*.S"))
    for name in files("*.cmake", "*CMakeLists.txt"):
        text = re.sub(r"#.*", "", "\n".join(lines(name)))
        for call in re.finditer(r"\b(?:target_compile_definitions|add_compile_definitions|add_definitions)\(([^)]*)\)",
                                text):
            for word in call[1].split():
                macro = re.match(r"(?:-D)?([A-Z][A-Z0-9_]+)(?:=|$)", word)
                if macro and macro[1] not in ("PUBLIC", "PRIVATE", "INTERFACE") and \
                        not re.search(rf"\b{macro[1]}\b", sources):
                    yield name, text[:call.start()].count("\n") + 1, f"{macro[1]} is defined and never read"


# An example in a header's comment is a run of lines that are indented by three blanks or more, one of which ends with a
# semicolon. Two blanks after the semicolon, the rest of a line says what it does.
STATEMENT = re.compile(r";(?:\s*$|  |\s+//)")


def examples_of(name):
    """(line number, code) of each, prose cut off."""
    block, start = [], 0
    for number, line in enumerate(lines(name) + [""], 1):
        inside = re.match(r"\s*//(   +\S.*)$", line)
        # A blank line within an example goes with it; after a table, the example begins.
        if inside or (any(STATEMENT.search(each) for each in block) and re.match(r"\s*//\s*$", line)):
            start = start if block else number
            block.append(inside[1] if inside else "")
            continue
        if any(STATEMENT.search(each) for each in block):
            yield start, [re.sub(r";(  +.*|\s+//.*)$", ";", each) for each in block if "does not compile" not in each]
        block = []


@rule
def examples():
    """Every example in a header compiles. Names that it takes as given are declared in lint/examples.h."""
    headers = [name for name in files("*.h") if not name.startswith(("tests/", "lint/"))]
    found = [(name, start, code) for name in headers for start, code in examples_of(name)]
    text = ['#include "lint/examples.h"'] + [f'#include "{name}"' for name in dict.fromkeys(each[0] for each in found)]
    for count, (name, start, code) in enumerate(found):
        bootloader = name.startswith(("src/", "bsp/", "platform/include/"))
        text += [f"namespace {'' if bootloader else 'fixture::'}examples {{ int Example{count}() {{"]
        for offset, line in enumerate(code):
            text += [f'#line {start + offset} "{name}"', line]
        text += ["return 0; } }"]
    with tempfile.NamedTemporaryFile("w", suffix=".cpp") as file:
        file.write("\n".join(text) + "\n")
        file.flush()
        folders = [".", "platform/host/include", "src", "src/driver", "bsp", "platform/include"]
        done = subprocess.run(["g++", "-std=gnu++20", "-fsyntax-only", "-w", *(f"-I{each}" for each in folders),
                               file.name], capture_output=True, text=True)
    for message in re.finditer(r"^([^\s:]+):(\d+):\d+: (?:fatal )?error: (.*)$", done.stderr, re.M):
        yield message[1], int(message[2]), f"example: {message[3]}"


def main():
    os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    wanted = sys.argv[1:] or [each.__name__ for each in RULES]
    wrong = [finding for each in RULES if each.__name__ in wanted for finding in each()]
    for name, number, what in wrong:
        print(f"{name}:{number}: {what}")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
