#!/usr/bin/env python3
"""What tests and corpora reach, measured with build/cover/fixture-cover and written into docs/coverage.md.

    cmake/cover.py lines       the lines that the fuzz targets reach from the committed corpora
    cmake/cover.py conditions  branches and conditions of the update path that the native tests of src/ decide

`conditions` holds the list of what is left, tests/conditions.txt, against the measurement: a gap without a reason and a
reason without a gap both end it with 1.
"""

import json
import re
import subprocess
import sys
from collections import defaultdict
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
BUILD = TREE / "build/cover"
PROGRAM = BUILD / "fixture-cover"
DOCUMENT = TREE / "docs/coverage.md"
REASONS = TREE / "tests/conditions.txt"
MODULES = ["src/Boot.cpp", "src/Rescue.cpp", "src/Validate.cpp", "src/ValidateImage.cpp", "src/ValidateVersion.cpp",
           "bsp/at91sam9263_sw_i2c_eeprom.cpp"]
FOLDERS = ["src", "bsp", "platform", "fixture", "formats", "machine", "sweep", "tools"]
# The targets that there were before these: what their corpora reach is the measure to compare with.
FIRST_TARGETS = ["descriptor", "manifest", "image", "slot", "parameters", "picture", "chip_files", "elf", "png",
                 "texts", "gdb"]


def measure(name, tests, sources=()):
    """Runs tests of the program, and returns what they reached as the compiler's tool exports it."""
    raw, profile = BUILD / f"{name}.profraw", BUILD / f"{name}.profdata"
    with open(BUILD / f"{name}.log", "w") as log:
        subprocess.run([PROGRAM, f"--gtest_filter={tests}", "--gtest_brief=1"], check=True, stdout=log, stderr=log,
                       env={"LLVM_PROFILE_FILE": str(raw), "PATH": "/usr/bin:/bin"})
    subprocess.run(["llvm-profdata-19", "merge", "-sparse", raw, "-o", profile], check=True)
    exported = subprocess.run(["llvm-cov-19", "export", PROGRAM, f"-instr-profile={profile}", *sources], check=True,
                              stdout=subprocess.PIPE)
    return json.loads(exported.stdout)["data"][0]


def write(block, text):
    """Replaces one generated block of the document."""
    begin, end = f"<!-- {block} -->\n", f"<!-- end of {block} -->\n"
    document = DOCUMENT.read_text()
    before, rest = document.split(begin)
    after = rest.split(end)[1]
    DOCUMENT.write_text(before + begin + text + end + after)
    print(text, end="")


def table(heads, rows):
    widths = [max(len(str(row[n])) for row in [heads, *rows]) for n in range(len(heads))]
    lines = [[str(cell).ljust(width) if n == 0 else str(cell).rjust(width)
              for n, (cell, width) in enumerate(zip(row, widths))] for row in [heads, *rows]]
    lines.insert(1, ["-" * widths[0]] + ["-" * (width - 1) + ":" for width in widths[1:]])
    return "".join("| " + " | ".join(line) + " |\n" for line in lines)


def share(covered, count):
    return f"{100 * covered / count:.1f} %" if count else "-"


# --- lines


def lines_by_folder(data):
    reached = defaultdict(lambda: [0, 0])
    for file in data["files"]:
        path = Path(file["filename"])
        if not path.is_relative_to(TREE):
            continue
        lines = file["summary"]["lines"]
        for name in (path.relative_to(TREE).parts[0], str(path.relative_to(TREE))):
            reached[name][0] += lines["covered"]
            reached[name][1] += lines["count"]
    return reached


def lines():
    first = lines_by_folder(measure("first", ":".join(f"*FuzzCorpus*/{target}" for target in FIRST_TARGETS)))
    every = lines_by_folder(measure("every", "*FuzzCorpus*"))
    rows = []
    for folder in FOLDERS:
        count = every[folder][1]
        rows.append([f"`{folder}/`", count, share(first[folder][0], count), share(every[folder][0], count)])
    total = [sum(reached[folder][n] for folder in FOLDERS) for reached, n in ((every, 1), (first, 0), (every, 0))]
    rows.append(["all", total[0], share(total[1], total[0]), share(total[2], total[0])])
    write("lines that the corpora reach", table(["folder", "lines", "first 11 targets", "all targets"], rows))
    for name, (covered, count) in sorted(every.items(), key=lambda item: item[1][0] - item[1][1]):
        if "/" in name and name.split("/")[0] in FOLDERS and count - covered >= 40:
            print(f"{name}: {count - covered} of {count} lines are out of reach")


# --- conditions


class Source:
    def __init__(self, file):
        self.lines = (TREE / file).read_text().splitlines()

    def text(self, begin_line, begin_column, end_line, end_column):
        rows = self.lines[begin_line - 1:end_line]
        rows[-1] = rows[-1][:end_column - 1]
        rows[0] = rows[0][begin_column - 1:]
        return " ".join(row.strip() for row in rows)


def short_name(mangled):
    plain = subprocess.run(["c++filt", mangled.split(":")[-1]], check=True, capture_output=True, text=True).stdout
    return re.sub(r"\(.*", "", plain.strip().replace("(anonymous namespace)::", ""))


def functions_of(data, file):
    """(first line, last line, name) of every function of a file."""
    found = []
    for function in data["functions"]:
        if function["filenames"][0] == str(TREE / file):
            body = function["regions"][0]
            found.append((body[0], body[2], short_name(function["name"])))
    return found


def gaps_of(data, file, entry):
    """What no test decides: (function, condition's text, what is missing)."""
    source, functions = Source(file), functions_of(data, file)

    def owner(line):
        return min((last - first, name) for first, last, name in functions if first <= line <= last)[1]

    gaps = set()
    branches = sorted(tuple(branch) for branch in entry["branches"])
    for branch in branches:
        text = source.text(*branch[:4])
        for count, missing in ((branch[4], "never true"), (branch[5], "never false")):
            if count == 0:
                gaps.add((owner(branch[0]), text, missing))
    for record in entry.get("mcdc_records", []):
        inside = [b for b in branches if tuple(record[:2]) <= b[:2] and b[2:4] <= tuple(record[2:4])]
        for branch, independent in zip(inside, record[-1]):
            if not independent and branch[4] and branch[5]:
                gaps.add((owner(branch[0]), source.text(*branch[:4]), "never alone"))
    return gaps


def reasons():
    """The list's entries: (file, function, condition, what is missing) and why."""
    entries = {}
    for number, line in enumerate(REASONS.read_text().splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        fields = [field.strip() for field in line.split(" | ")]
        if len(fields) != 5 or tuple(fields[:4]) in entries:
            sys.exit(f"{REASONS.name}:{number}: twice, or not \"file | function | condition | gap | reason\"")
        entries[tuple(fields[:4])] = fields[4]
    return entries


def conditions():
    data = measure("conditions", "-*/arm*:*FuzzCorpus*", [TREE / file for file in MODULES])
    rows, gaps = [], set()
    for file in MODULES:
        entry = next(entry for entry in data["files"] if entry["filename"] == str(TREE / file))
        found = gaps_of(data, file, entry)
        gaps |= {(file, *gap) for gap in found}
        summary = entry["summary"]
        cells = [f"{summary[kind]['covered']} of {summary[kind]['count']}" for kind in ("lines", "branches", "mcdc")]
        rows.append([f"`{file}`", *cells, len(found)])
    explained = reasons()
    listed = [[f"`{key[0]}`", f"`{key[1]}`", f"`{key[2]}`", key[3], explained.get(key, "none yet")]
              for key in sorted(gaps)]
    text = table(["module", "lines", "branches", "conditions", "gaps"], rows)
    if listed:
        heads = ["what is left", "function", "condition", "gap", "reason"]
        text += "\n" + "".join("| " + " | ".join(row) + " |\n" for row in [heads, ["---"] * len(heads), *listed])
    write("conditions that the tests decide", text)
    problems = [f"no reason: {' | '.join(key)} | ?" for key in sorted(gaps - explained.keys())]
    problems += [f"a reason, and no such gap: {' | '.join(key)}" for key in sorted(explained.keys() - gaps)]
    if problems:
        sys.exit("\n".join(f"{REASONS.relative_to(TREE)}: {problem}" for problem in problems))


if __name__ == "__main__":
    {"lines": lines, "conditions": conditions}[sys.argv[1]]()
