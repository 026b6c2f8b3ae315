#!/usr/bin/python3
"""A mutation score of the bootloader: see docs/mutants.md.

    mutants/mutants.py [--sample N] [--seed S] [--jobs J] [--depth D] [--report FILE]
                       [--shard K/N --out PART] [--again PART...]
    mutants/mutants.py merge PART... [--report FILE]
    mutants/mutants.py list [TEXT...]         the mutants whose place begins with a text, or whose key contains it
    mutants/mutants.py try TEXT...            builds and tries these

Needs build/mutants and build/arm up to date, as `make mutants` leaves them; --depth sanitized needs build/asan as well.
Ends with 0 where every survivor is explained, 1 where one is not or a part does not fit, 2 where the call is wrong.
"""

import argparse
import concurrent.futures
import os
import queue
import re
import signal
import sys
import threading

import building
import campaign
import making
import report
import trying

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
EXPLAINED = os.path.join(ROOT, "mutants/explained.txt")


class Tree:
    """All that there is to mutate, and to try it with."""

    def __init__(self):
        self.builds = building.builds_of(ROOT)
        self.mutants, self.includers = making.make(ROOT, [self.builds["native"], self.builds["arm"]])

    def check_builds(self):
        for build in self.builds.values():
            part = build.stale()
            if part:
                raise campaign.Refusal(part, "newer than what is made of it", "a build that is complete and stays so")

    def bench(self):
        return trying.Workbench(ROOT, self.builds, self.includers)

    def attempts(self, mutants, arguments):
        """The results in the order of the mutants."""
        self.check_builds()
        limits = trying.Limits(self.bench, threading.Lock())
        explained = report.read_explanations(EXPLAINED)
        benches = queue.SimpleQueue()
        for _ in range(arguments.jobs):
            benches.put(self.bench())

        def attempt(mutant):
            bench = benches.get()
            # What is argued to be equivalent is not taken through minutes of sweeps.
            equivalent = explained.get(mutant.key, "").startswith("equivalent")
            try:
                result = bench.attempt(mutant, limits, "fast" if equivalent else arguments.depth)
            finally:
                benches.put(bench)
            tell(mutant, result)
            return result

        with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
            results = list(pool.map(attempt, mutants))
        self.check_builds()
        return results

    def matching(self, texts):
        return [mutant for mutant in self.mutants
                if any(mutant.place.startswith(text) or text in mutant.key for text in texts)]  # fmt: skip


def tell(mutant, result):
    print(f"{result.verdict:8} {mutant.place} {mutant.key.partition(': ')[2]}  {result.stage}  {result.by}", flush=True)


def shard(text):
    found = re.fullmatch(r"(\d+)/(\d+)", text)
    if not found or not 1 <= int(found[1]) <= int(found[2]):
        raise argparse.ArgumentTypeError(f"{text} is no part; expected K/N, K from 1 to N")
    return int(found[1]), int(found[2])


def parser_of(words):
    parser = argparse.ArgumentParser(prog="mutants.py", usage=__doc__.partition("\n\n")[2].partition("\n\n")[0])
    if words[:1] == ["merge"]:
        parser.add_argument("parts", nargs="+", metavar="PART")
    elif words[:1] == ["list"]:
        parser.add_argument("texts", nargs="*", metavar="TEXT")
    elif words[:1] == ["try"]:
        parser.add_argument("texts", nargs="+", metavar="TEXT")
    else:
        parser.add_argument("--sample", type=int, default=300, help="mutants to try, 0 for all [300]")
        parser.add_argument("--seed", type=int, default=1, help="of the sample [1]")
        parser.add_argument("--shard", type=shard, default=(1, 1), metavar="K/N", help="try part K of N only")
        parser.add_argument("--out", metavar="FILE", help="file for the part's results, for merge")
        parser.add_argument("--again", nargs="+", default=[], metavar="PART",
                            help="try only what survived there: tests were added since")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="mutants at a time [processors]")
    parser.add_argument("--depth", choices=("fast", "whole", "sanitized"), default="whole",
                        help="fast: tests of seconds only; sanitized: the tables under sanitizers, too [whole]")
    parser.add_argument("--report", metavar="FILE", help="write the document to this file")
    return parser


def conclude(tree, call, results, file):
    chosen = campaign.sample(tree.mutants, call["sample"], call["seed"])
    tried = [(mutant, results[number]) for number, mutant in enumerate(chosen)]
    explained = report.read_explanations(EXPLAINED)
    report.check_explanations(explained, tree.mutants, tried)
    if file:
        with open(file + ".tmp", "w", encoding="utf-8") as out:
            out.write(report.document(tree.mutants, call, tried, explained))
        os.replace(file + ".tmp", file)
    print(*report.table("kind", report.counted(tried, explained, lambda mutant: mutant.kind)), sep="\n")
    open_ones = report.unexplained(tried, explained)
    for mutant in open_ones:
        print(f"{mutant.place}: survived, and is not explained: {mutant.key}")
    return 1 if open_ones else 0


def run(tree, arguments):
    call = {"sample": arguments.sample, "seed": arguments.seed, "depth": arguments.depth}
    part, of = arguments.shard
    chosen = campaign.sample(tree.mutants, call["sample"], call["seed"])
    numbers = campaign.units_of(part, of, len(chosen))
    builds = {"build": campaign.build_of(ROOT), "sources": campaign.sources_of(ROOT)}
    results = {}
    for file in arguments.again:
        results |= campaign.taken_over(file, builds["sources"], call)
    results = {number: result for number, result in results.items() if number in numbers}
    left = [number for number in numbers if number not in results]
    results |= dict(zip(left, tree.attempts([chosen[number] for number in left], arguments)))
    if arguments.out:
        campaign.write_part(arguments.out, builds, call, part, of, results)
    return 0 if of > 1 else conclude(tree, call, results, arguments.report)


def main(words):
    command = words[0] if words[:1] and words[0] in ("merge", "list", "try") else "run"
    arguments = parser_of(words).parse_args(words if command == "run" else words[1:])
    if command == "run" and arguments.shard[1] > 1 and not arguments.out:
        print("--shard: a part of a run is for merge; expected --out FILE", file=sys.stderr)
        return 2
    tree = Tree()
    try:
        if command == "list":
            for mutant in tree.matching(arguments.texts or [""]):
                print(mutant.place, mutant.key)
            return 0
        if command == "try":
            tree.attempts(tree.matching(arguments.texts), arguments)
            return 0
        if command == "merge":
            call, results = campaign.merge(arguments.parts, campaign.build_of(ROOT))
            return conclude(tree, call, results, arguments.report)
        return run(tree, arguments)
    except (campaign.Refusal, report.Stale) as refused:
        print(refused, file=sys.stderr)
        return 1


if __name__ == "__main__":
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # a list that is cut short by its reader is no failure
    sys.exit(main(sys.argv[1:]))
