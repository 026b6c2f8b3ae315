#!/usr/bin/env python3
"""clang-tidy over the whole tree, in minutes. Prints what it finds; ends with 1 then.

    lint/tidy.py [FOLDER ...]      the named folders only; build/lint must be configured

Nearly all of the time goes into the libraries' headers, which are read again for every source. So the sources of a
bench folder are read together, as few translation units. Files that give a helper of their own the same name would not
compile together: they go into different units. A file that gives one the name of something in a header is a unit of its
own. What the board runs is searched more deeply and includes little, so there each file is one unit.
"""

import collections
import concurrent.futures
import functools
import json
import os
import re
import subprocess
import sys

UNIT = 14  # files; more would leave one processor idle at the end, fewer read the headers more often

# platform/at91sam9263 and the example of a port are compiled for a board alone, by a compiler that clang-tidy does not
# stand in for.
NOT_HERE = ("src/Images.cpp", "tests/planted/", "platform/at91sam9263/", "examples/", "assets/")
ONE_BY_ONE = ("src", "bsp", "platform")
# What a line declares: the word after the kind of a type, or the word before the first sign that can follow a name.
# Qualified names are declared elsewhere.
OWN_TYPE = re.compile(r"(?:enum )?(?:class|struct|enum|union|using) (\w+)")
OWN_NAME = re.compile(r"[^(={;\[]*?(?<!::)\b(\w+)\s*[(={;\[]")
LIBRARY = ("using ::", "using std", "using testing", "using namespace std", "using namespace testing")


def declared(line):
    if not line[:1].isalpha() or line.startswith(LIBRARY):
        return None
    found = OWN_TYPE.match(line) or OWN_NAME.match(line)
    return found[1] if found and not found[1].isupper() else None  # in capitals: a macro's call


def own_names(path):
    """Names that a file may give to things of its own, in nameless namespaces. One too many does no harm."""
    names, nameless = set(), False
    with open(path, encoding="utf-8") as file:
        for line in file:
            if line.startswith("namespace {"):
                nameless = True
            elif line.startswith("} // namespace"):
                nameless = False
            elif nameless or line.startswith(("static ", "using ")):
                names.add(declared(line))
    return names - {None}


@functools.cache
def header_names():
    names = set()
    for path in subprocess.run(["git", "ls-files", "*.h"], check=True, capture_output=True, text=True).stdout.split():
        with open(path, encoding="utf-8") as file:
            names.update(found[1] for found in map(OWN_TYPE.match, file) if found)
    return names


def batches(files):
    """Files of one folder, as few units as their names allow."""
    units, alone = [], []
    for path in files:
        names = own_names(path)
        if names & header_names() or "namespace" in names:  # using namespace of our own
            alone.append([path])
            continue
        for unit in units:
            if len(unit[0]) < UNIT and not unit[1] & names:
                unit[0].append(path)
                unit[1].update(names)
                break
        else:
            units.append(([path], names))
    return [unit[0] for unit in units] + alone


def work(wanted):
    """(source, its options, its files) of every unit."""
    commands = {}
    for each in json.load(open("build/lint/compile_commands.json", encoding="utf-8")):
        words = each["command"].split()
        commands[os.path.relpath(each["file"])] = words[1:words.index("-o")]
    folders = collections.defaultdict(list)
    for path in subprocess.run(["git", "ls-files", "*.cpp"], check=True, capture_output=True,
                               text=True).stdout.splitlines():
        folder = path.split("/")[0]
        if not path.startswith(NOT_HERE) and (not wanted or folder in wanted):
            folders[folder].append(path)
    for folder, files in folders.items():
        # A file that is not built here is looked at as its neighbours are.
        usual = next(commands[each] for each in files if each in commands)
        alike = collections.defaultdict(list)
        for path in files:
            alike[tuple(commands.get(path, usual))].append(path)
        units = [(options, unit) for options, group in alike.items()
                 for unit in ([[each] for each in group] if folder in ONE_BY_ONE else batches(group))]
        for number, (options, unit) in enumerate(units):
            source = os.path.abspath(unit[0])
            if folder not in ONE_BY_ONE:
                source = os.path.abspath(f"build/lint/units/{folder}_{number}.cpp")
                os.makedirs(os.path.dirname(source), exist_ok=True)
                with open(source, "w", encoding="utf-8") as file:
                    file.writelines(f'#include "{os.path.abspath(each)}"\n' for each in unit)
            yield source, options, unit


def look(unit):
    source, options, files = unit
    # Warnings of the compiler are the compiler's: sources that stand together shadow names that they do not alone.
    done = subprocess.run(["clang-tidy", "--quiet", "--checks=-bugprone-suspicious-include", source, "--", *options,
                           "-w"], capture_output=True, text=True)
    return files, done.returncode, done.stdout + (done.stderr if "error:" in done.stderr else "")


def main():
    os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    units = sorted(work(sys.argv[1:]), key=lambda unit: -len(unit[2]))
    failed, seen = False, set()
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for files, status, text in pool.map(look, units):
            failed |= status != 0
            # A header's finding comes once, not with every unit that includes it.
            for finding in re.split(r"(?m)^(?=/\S+:\d+:\d+: (?:error|warning))", text):
                if finding.strip() and finding not in seen:
                    seen.add(finding)
                    print(finding.rstrip(), flush=True)
            if status and not text.strip():
                print(f"clang-tidy ended with {status} on {' '.join(files)}", flush=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
