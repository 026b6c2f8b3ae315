"""Which mutants are tried, in which parts, and how parts become one again.

The words and the checks are those of `fixture sweep --shard` and `fixture sweep merge`.
"""

import collections
import hashlib
import json
import os

import making
from trying import Result

# To be changed with the form of the file: an old part is then refused by name instead of being misread.
FORMAT = "fixture mutants part 1"


class Refusal(Exception):
    def __init__(self, file, found, expected):
        super().__init__(f"{file}: {found}; expected {expected}")


def digest(*parts):
    sum = hashlib.sha256()
    for part in parts:
        sum.update(part if isinstance(part, bytes) else part.encode())
    return sum.hexdigest()


def sources_of(root):
    """A text that differs where what is mutated does."""
    return digest(*(name[len(root):] + text for name, text in sorted(making.Texts(root).items())))[:16]


def build_of(root):
    """A text that differs where a result may: what is mutated, what is tried on it, how."""
    files = [os.path.join(root, "build", name, "fixture-tests") for name in ("mutants", "asan")]
    files += [os.path.join(root, "build/arm/fixed", name) for name in ("bootloader.elf", "bootloader-1.9.1.elf")]
    here = os.path.dirname(os.path.abspath(__file__))
    files += [os.path.join(here, name) for name in sorted(os.listdir(here)) if name.endswith(".py")]
    contents = []
    for name in filter(os.path.exists, files):  # fast tests do without some
        with open(name, "rb") as file:
            contents.append(file.read())
    return digest(sources_of(root), *contents)[:16]


def sample(mutants, count, seed):
    """`count` of them, from every file in proportion and at least one; 0: all. In the order of the files.

    Which ones of a file are taken depends on their keys and the seed: a change of one function leaves those of the
    others in the sample.
    """
    if count == 0 or count >= len(mutants):
        return list(mutants)
    by_file = collections.defaultdict(list)
    for mutant in mutants:
        by_file[mutant.file].append(mutant)
    taken = set()
    for file, number in shares({file: len(of) for file, of in by_file.items()}, count).items():
        in_order = sorted(by_file[file], key=lambda mutant: digest(f"{seed} {mutant.key}"))
        taken.update(mutant.key for mutant in in_order[:number])
    return [mutant for mutant in mutants if mutant.key in taken]


def shares(sizes, count):
    """By largest remainders; where there are more files than `count`, one each."""
    whole = sum(sizes.values())
    exact = {name: count * size / whole for name, size in sizes.items()}
    given = {name: max(1, int(share)) for name, share in exact.items()}
    for name in sorted(exact, key=lambda name: int(exact[name]) - exact[name])[: max(0, count - sum(given.values()))]:
        given[name] += 1
    return given


def units_of(part, of, count):
    """Every `of`th: neighbours cost alike, and so every part takes about as long."""
    return range(part - 1, count, of)


def write_part(file, builds, call, part, of, results):
    """`results` by the number of the mutant in the sample."""
    units = [{"unit": number, "result": vars(result)} for number, result in sorted(results.items())]
    whole = {"format": FORMAT, **builds, "call": call, "part": part, "of": of, "units": units}
    # Beside and renamed: a part is there complete or not at all.
    with open(file + ".tmp", "w", encoding="utf-8") as out:
        out.write(json.dumps(whole, indent=1) + "\n")
    os.replace(file + ".tmp", file)


def read_part(file):
    try:
        with open(file, encoding="utf-8") as text:
            whole = json.load(text)
        if whole["format"] != FORMAT:
            raise Refusal(file, "another format", FORMAT)
        whole["results"] = {unit["unit"]: Result(**unit["result"]) for unit in whole["units"]}
        if not 1 <= whole["part"] <= whole["of"]:
            raise Refusal(file, name_of(whole), "a number from 1 to that of all parts")
        return whole
    except OSError as error:
        raise Refusal(file, error.strerror, "a part of a campaign") from error
    except (ValueError, TypeError, KeyError) as error:
        raise Refusal(file, "no JSON, or of another form", "a part of a campaign") from error


def taken_over(file, sources, call):
    """What an earlier run of the same mutants has settled. What survived there is to be tried again: tests that were
    only added to can kill more, and never less."""
    part = read_part(file)
    if part["sources"] != sources:
        raise Refusal(file, "a part of other sources, " + part["sources"], "one of these, " + sources)
    # From a fast run to a whole one is what this is for, so their depths may differ.
    if part["call"] | {"depth": ""} != call | {"depth": ""}:
        raise Refusal(file, "a part of another campaign: " + json.dumps(part["call"]), json.dumps(call))
    return {number: result for number, result in part["results"].items() if result.verdict != "survived"}


def name_of(part):
    return f"part {part['part']} of {part['of']}"


def check_fits(file, part, first, first_file, build):
    if part["build"] != build:
        raise Refusal(file, "a part that build " + part["build"] + " made", "one of this build, " + build)
    if part["call"] != first["call"]:
        raise Refusal(file, "a part of another campaign: " + json.dumps(part["call"]),
                      f"one of {first_file}: " + json.dumps(first["call"]))  # fmt: skip
    if part["of"] != first["of"]:
        raise Refusal(file, name_of(part), f"a part of {first['of']}, as {first_file}")


def merge(files, build):
    """The call and the results of all parts."""
    first = read_part(files[0])
    seen, results = {}, {}
    for file in files:
        part = read_part(file)
        check_fits(file, part, first, files[0], build)
        if part["part"] in seen:
            raise Refusal(file, name_of(part), f"it once; {seen[part['part']]} is it, too")
        seen[part["part"]] = file
        results |= part["results"]
    missing = [str(number) for number in range(1, first["of"] + 1) if number not in seen]
    if missing:
        raise Refusal("campaign", f"part {', '.join(missing)} of {first['of']} is missing", "every part")
    return first["call"], results
