"""docs/mutants.md, and the explanations of survivors.

mutants/explained.txt: a mutant's key in a line, then, indented, why no test sees it. The first word is `equivalent`
where nobody could: such a mutant counts for nothing. Else it is `accepted`, and counts as a survivor.
"""

import collections

KINDS = ("equivalent", "accepted")
# Stages that a fast run leaves out. What is accepted there may be killed here.
DEEP = ("all tables on the ARM image", "sweeps and the rest", "all tables under sanitizers")


class Stale(Exception):
    pass


def read_explanations(file):
    explained, key = {}, None
    with open(file, encoding="utf-8") as text:
        for number, line in enumerate(text, 1):
            if not line.strip() or line.startswith("#"):
                continue
            if not line.startswith(" "):
                key = line.strip()
                if key in explained:
                    raise Stale(f"{file}:{number}: explained twice")
                explained[key] = ""
            else:
                explained[key] = (explained[key] + " " + line.strip()).strip()
    for key, reason in explained.items():
        if reason.split(":")[0] not in KINDS:
            raise Stale(f"{file}: {key}: found no {' or '.join(KINDS)}; expected one, a colon and the reason")
    return explained


def check_explanations(explained, mutants, tried):
    """`tried`: pairs of a mutant and its result. Each explanation has to be of a mutant that still is there."""
    keys = {mutant.key for mutant in mutants}
    for key in explained:
        if key not in keys:
            raise Stale(f"mutants/explained.txt: {key}: no such mutant any more; remove it or name the one it is now")
    for mutant, result in tried:
        if mutant.key not in explained or result.verdict == "survived":
            continue
        if result.stage not in DEEP or explained[mutant.key].startswith("equivalent"):
            what = "killed by " + result.by if result.verdict == "killed" else result.verdict
            raise Stale(f"mutants/explained.txt: {mutant.key}: {what}; remove the explanation")


def verdict_of(mutant, result, explained):
    """Equal objects and equivalent programs are one to the score, and two in the table."""
    if result.verdict == "survived" and explained.get(mutant.key, "").startswith("equivalent"):
        return "equivalent"
    return result.verdict


def unexplained(tried, explained):
    return [mutant for mutant, result in tried if result.verdict == "survived" and mutant.key not in explained]


def score(counts):
    tried = counts["killed"] + counts["survived"]
    return f"{100 * counts['killed'] / tried:.1f} %" if tried else ""


def table(title, rows):
    columns = ("refused", "equal", "equivalent", "killed", "survived")
    yield f"| {title} | made | not compiled | same object | equivalent | killed | survived | score |"
    yield "|---|---:|---:|---:|---:|---:|---:|---:|"
    for name, counts in rows:
        cells = [str(counts[column]) for column in columns]
        yield f"| {name} | {sum(counts.values())} | {' | '.join(cells)} | {score(counts)} |"


def counted(tried, explained, name):
    rows = collections.defaultdict(collections.Counter)
    for mutant, result in tried:
        rows[name(mutant)][verdict_of(mutant, result, explained)] += 1
    whole = sum(rows.values(), collections.Counter())
    return [*rows.items(), ("**all**", whole)]


def killers(tried):
    """By stage: how many it killed, and the tests that killed most."""
    stages = collections.defaultdict(collections.Counter)
    for _, result in tried:
        if result.verdict == "killed":
            stages[result.stage][result.by] += 1
    yield "| stage | killed | tests that killed most |"
    yield "|---|---:|---|"
    for stage, tests in sorted(stages.items(), key=lambda one: -one[1].total()):
        first = ", ".join(f"`{test}` {count}" for test, count in tests.most_common(4))
        yield f"| {stage} | {tests.total()} | {first} |"


def survivors(tried, explained):
    for mutant, result in tried:
        if result.verdict == "survived":
            reason = explained.get(mutant.key, "**not explained**")
            yield f"| `{mutant.place}` | {code(mutant.old)} | {code(mutant.new)} | {cell(reason)} |"


def code(text):
    return "`" + cell(" ".join(text.split())) + "`" if text else ""


def cell(text):
    return text.replace("|", "\\|")


def document(mutants, call, tried, explained):
    whole = counted(tried, explained, lambda mutant: "")[-1][1]
    chosen = f"A sample of {len(tried)}, seed {call['seed']}" if call["sample"] else f"All {len(tried)}"
    lines = [
        "# Mutants",
        "",
        "`make mutants` makes small mechanical mistakes in the bootloader and in the platform that it is",
        "delivered with, one at a time, and runs the tests against each. It writes this file.",
        "",
        f"**{score(whole)} are killed**: {whole['killed']} of {whole['killed'] + whole['survived']} that can be told"
        " from the original.",
        "",
        f"{len(mutants):,} mutants can be made. {chosen}, from every file in proportion, was tried.",
        "",
        *table("folder", counted(tried, explained, lambda mutant: "`" + mutant.file.rpartition("/")[0] + "/`")),
        "",
        *table("mistake", counted(tried, explained, lambda mutant: mutant.kind)),
        "",
        "A mutant that compiles to the original's object code, natively and for the board, is nobody's",
        "mistake; nor is one that is explained below as equivalent. Neither counts.",
        "",
        "## Killed by",
        "",
        *killers(tried),
        "",
        *STAGES,
        *NOT_RUN[call["depth"]],
        "",
        "## Survivors",
        "",
        "| place | was | is | why no test sees it |",
        "|---|---|---|---|",
        *survivors(tried, explained),
        "",
    ]
    return "\n".join(lines) + "\n" + HOW


STAGES = (
    "Stages run in this order, until a test fails: the table of the module itself; the other tables that",
    "are short; the module's table on the ARM image; all tables on the ARM image; sweeps, closures,",
    "predictions, fuzz corpora, figures of speed and the long tables, with the mutant in both builds. A",
    "stage that takes three times as long as without the mutant has killed it: `(time)`. Mutants that",
    "are explained as equivalent are taken through the first three alone.",
)

NOT_RUN = {
    "fast": ["**Only the first three were run** (`--depth fast`), and the fourth for what the board alone has.",
             "The others would kill some of the survivors."],
    "whole": ["The tables were not run under sanitizers (`--depth sanitized`)."],
    "sanitized": ["Last of all, the tables under sanitizers."],
}  # fmt: skip

HOW = """## Run it

```sh not run: takes an hour
make mutants                                 # a sample of 300
make mutants MUTANTS_ARGS="--sample 1000 --seed 2"
make mutants MUTANTS_ARGS="--sample 0"       # all
make asan mutants MUTANTS_ARGS="--depth sanitized"
```

```sh not run: needs the builds of `make mutants`
mutants/mutants.py list ChooseSlots          # the mutants with that in their names
mutants/mutants.py try src/Boot.cpp:63       # tries some of them
mutants/mutants.py --shard 3/8 --out 3.part  # one part of a run; any number of machines
mutants/mutants.py merge 1.part 2.part ...   # and the document of all
```

Every Nth mutant is one part's. A part that is missing, there twice, of another build or of another
call is refused by name ([campaigns.md](campaigns.md)).

A survivor is killed by a row in a table of the tests, or explained in `mutants/explained.txt`. The
run ends with 1 where one is neither, or where an explanation is of no survivor any more. After rows
were added, `--again PART...` tries only what survived in those parts: a test that is there can only
kill more. So the rest, which takes a minute a mutant, need not be run on what one table kills:
`--depth fast --out fast.part` first, then `--again fast.part`.

What is mutated: `src/`, `bsp/`, `platform/at91sam9263/` and `platform/common/`, with their headers.
Not the picture's array, which a command writes, and not `platform/include/`, which the bench is
compiled against as well. The mistakes: an operator exchanged; a number one more or one less; a
condition always true or always false; a call or another statement left out; a text with a letter
changed, empty, or without its line's end.
"""
