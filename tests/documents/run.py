#!/usr/bin/env python3
"""Runs every command that a document shows:

    run.py FIXTURE [DOCUMENT...]      all documents of the tree, unless some are named

A document's blocks of ```sh run in order, each in one shell that stops at its first failure, in a directory of the
document's own. It has what `make boot` leaves (build/, out/) and examples/. After "sh" a block may say

    exits N           its last command ends so, and is meant to
    not run: WHY      it cannot run here

A command outside such a block would run nowhere, so it fails as well. So does a link to a file that is not there.
"""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
STRAY = re.compile(r"^ {4}(\$ )?(build/host/)?(fixture|make) ", re.MULTILINE)
LINK = re.compile(r"\]\((?!https?:)([^)#]+)")
BLOCK = re.compile(r"^```sh *(.*)\n((?:.*\n)*?)```$", re.MULTILINE)


def run(block, status, place, fixture):
    environment = {"PATH": f"{fixture.parent}:/usr/local/bin:/usr/bin:/bin", "HOME": str(place), "TERM": "dumb",
                   "TMPDIR": str(place)}
    done = subprocess.run(["sh", "-eu", "-c", block], cwd=place, env=environment, text=True, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=300, check=False)
    return "" if done.returncode == status else f"exits {done.returncode}, expected {status}:\n{block}{done.stdout}"


def check(document, made, fixture, counts):
    text = document.read_text(encoding="utf-8")
    errors = [f"a command outside a block: {found[0].strip()}" for found in STRAY.finditer(text)]
    errors += [f"no {link}" for link in LINK.findall(text) if not (document.parent / link).exists()]
    with tempfile.TemporaryDirectory() as scratch:
        place = pathlib.Path(scratch)
        shutil.copytree(made, place / "out")
        (place / "build").mkdir()
        (place / "build/host").symlink_to(fixture.parent)
        (place / "build/arm").symlink_to(ROOT / "build/arm")
        (place / "examples").symlink_to(ROOT / "examples")
        for note, block in BLOCK.findall(text):
            if re.fullmatch(r"not run: .+", note):
                counts["not run"] += 1
                continue
            meant = re.fullmatch(r"(?:exits (\d))?", note)
            error = run(block, int(meant[1] or 0), place, fixture) if meant else f"sh {note}: not understood"
            counts["run"] += 1
            if error:
                errors.append(error)
    return [f"{document.relative_to(ROOT)}: {error}" for error in errors]


def main():
    fixture = pathlib.Path(sys.argv[1]).resolve()
    documents = [pathlib.Path(name).resolve() for name in sys.argv[2:]]
    documents = documents or sorted([*ROOT.glob("*.md"), *ROOT.glob("docs/*.md"), *ROOT.glob("examples/*/*.md")])
    counts = {"run": 0, "not run": 0}
    errors = []
    with tempfile.TemporaryDirectory() as made:
        subprocess.run([ROOT / "demo.sh", fixture, made], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        for document in documents:
            errors += check(document, made, fixture, counts)
    print(f"{len(documents)} documents, {counts['run']} blocks run, {counts['not run']} marked as not to be run")
    for error in errors:
        print(error, file=sys.stderr)
    sys.exit(1 if errors else 0)


main()
