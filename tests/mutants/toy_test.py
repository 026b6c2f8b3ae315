#!/usr/bin/python3
"""The mutation tool on a tree of its own, of one function and one test: what is made, what becomes of it, which parts
are refused. Ends with 1 and says what is wrong.
"""

import os
import sys
import tempfile
import threading
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../mutants"))
import building
import campaign
import making
import report
import trying

TOY = r"""
int g_sum;
volatile int g_rest = 3;
const char *g_text = "a+b\n";
int Sum(const int *first, int count) {
    int sum = 0;
    for (int i = 0; i < count; ++i) sum += first[i];
    g_sum = sum;
    while (g_rest > 0) g_rest = g_rest - 1;
    if (sum < 0) return -1;
    unsigned never = 0;
    never *= 0;
    return sum + static_cast<int>(never);
}
"""
# As much of a test program as the tool sees of one.
TESTS = r"""
#include <cstdio>
extern const char *g_text;
int Sum(const int *, int);
int main() {
    const int numbers[] = {1, 2, 4};
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    std::puts("[ RUN      ] Toy.Adds");
    const bool good = Sum(numbers, 3) == 7 && g_text[0] == 'a';
    std::puts(good ? "[       OK ] Toy.Adds" : "[  FAILED  ] Toy.Adds (0 ms)");
    return good ? 0 : 1;
}
"""
NINJA = """
rule cc
  command = /usr/bin/c++ -O1 -g -o $out -c $in
rule link
  command = /usr/bin/c++ -o $out $in
build CMakeFiles/toy.dir/src/toy.cpp.o: cc {root}/src/toy.cpp
build main.o: cc {root}/main.cpp
build fixture-tests: link main.o CMakeFiles/toy.dir/src/toy.cpp.o
"""


class Toy(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory()
        cls.root = os.path.realpath(cls.directory.name)
        for folder in ("src", "bsp", "platform", "build/mutants", "build/arm"):
            os.makedirs(os.path.join(cls.root, folder))
        for name, text in (("src/toy.cpp", TOY), ("main.cpp", TESTS), ("build/mutants/build.ninja", NINJA)):
            cls.write(name, text.replace("{root}", cls.root))
        building.output_of(["ninja", "-C", os.path.join(cls.root, "build/mutants"), "fixture-tests"])
        cls.build = building.Build(cls.root, "mutants", ("toy",), ["fixture-tests"], ["fixture-tests"])
        cls.mutants, cls.includers = making.make(cls.root, [cls.build])

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    @classmethod
    def write(cls, name, text):
        with open(os.path.join(cls.root, name), "w", encoding="utf-8") as file:
            file.write(text)

    def named(self, ending):
        (found,) = [mutant for mutant in self.mutants if mutant.key.endswith(ending)]
        return found

    def bench(self):
        return trying.Workbench(self.root, {"native": self.build}, self.includers)

    def attempt(self, *endings):
        """Natively alone: this tree has nothing else."""
        stage = trying.Stage("toy", ("native",), "native", "*")
        stages, trying.stages_for = trying.stages_for, lambda *_: [stage]
        try:
            # The null mutant is built of any source, and the toy has but one.
            trying.CLEAN, clean = "src/toy.cpp", trying.CLEAN
            limits = trying.Limits(self.bench, threading.Lock())
            bench = self.bench()
            return [bench.attempt(self.named(ending), limits) for ending in endings]
        finally:
            bench.close()
            limits.close()
            trying.stages_for, trying.CLEAN = stages, clean

    def test_makes_each_kind_once(self):
        keys = [mutant.key.partition(": ")[2] for mutant in self.mutants if mutant.function in ("Sum", "g_text")]
        for wanted in ("operator `<` -> `<=`", "operator `+=` -> `-=`", "operator `++` -> `--`", "constant `0` -> `1`",
                       "condition `i < count` -> `true`", "statement `g_sum = sum` -> nothing",
                       r'text `"a+b\n"` -> `"a+b"`', r'text `"a+b\n"` -> `"a+c\n"`',
                       "operator `+` -> `-`"):  # fmt: skip
            self.assertEqual(keys.count(wanted), 1, wanted)
        self.assertEqual(len({mutant.key for mutant in self.mutants}), len(self.mutants))

    def test_says_what_becomes_of_each(self):
        killed, endless, equal, survived, wrong = self.attempt(
            "`+=` -> `-=`", "`g_rest = g_rest - 1` -> nothing", "`never *= 0` -> nothing", "`g_sum = sum` -> nothing",
            "`+` -> `-`")  # fmt: skip
        self.assertEqual(killed, trying.Result("killed", "toy", "Toy.Adds"))
        self.assertEqual(endless, trying.Result("killed", "toy", "Toy.Adds (time)"))
        self.assertEqual(equal.verdict, "equal")
        self.assertEqual(survived.verdict, "survived")
        self.assertEqual(wrong.verdict, "equal")  # what is added is 0
        with open(os.path.join(self.root, "src/toy.cpp"), encoding="utf-8") as file:
            self.assertEqual(file.read(), TOY)

    def test_tells_a_build_that_is_not_complete(self):
        self.assertIsNone(self.build.stale())
        part = os.path.join(self.build.directory, "main.o")
        time = os.path.getmtime(part)
        os.utime(part, (time + 60, time + 60))
        self.assertEqual(self.build.stale(), part)
        os.utime(part, (time, time))

    def test_two_never_share_a_bench(self):
        first, second = self.bench(), self.bench()
        self.assertNotEqual(first.place, second.place)
        free = first.place
        first.close()
        third = self.bench()
        self.assertEqual(third.place, free)
        second.close()
        third.close()

    def test_samples_every_file_by_its_size_and_seed(self):
        many = [making.Mutant(f"src/{file}.cpp", n, 1, n, "F", "constant", str(n), "x")
                for file, count in (("long", 90), ("short", 10)) for n in range(count)]  # fmt: skip
        chosen = campaign.sample(many, 20, 1)
        self.assertEqual([sum(one.file == f"src/{file}.cpp" for one in chosen) for file in ("long", "short")], [18, 2])
        self.assertEqual(chosen, campaign.sample(many, 20, 1))
        self.assertNotEqual(chosen, campaign.sample(many, 20, 2))
        self.assertEqual(campaign.sample(many, 0, 1), many)

    def test_merges_all_parts_and_refuses_others_by_name(self):
        call, units = {"sample": 7, "seed": 1}, {}

        def part(name, number, of, build="this build", call=call):
            file = os.path.join(self.root, name)
            results = {n: trying.Result("survived", "", str(n)) for n in campaign.units_of(number, of, 7)}
            campaign.write_part(file, {"build": build, "sources": "these"}, call, number, of, results)
            units.update(results)
            return file

        parts = [part(f"{n}.part", n, 3) for n in (3, 1, 2)]
        self.assertEqual(campaign.merge(parts, "this build"), (call, units))
        for files, refusal in (
            (parts[:2], "campaign: part 2 of 3 is missing; expected every part"),
            ([*parts, parts[0]], f"{parts[0]}: part 3 of 3; expected it once; {parts[0]} is it, too"),
            ([parts[0], part("b.part", 2, 3, "that build")], "a part that build that build made"),
            ([parts[0], part("s.part", 2, 3, call={"sample": 7, "seed": 2})], "s.part: a part of another campaign"),
            ([parts[0], part("of.part", 2, 4)], "of.part: part 2 of 4"),
            ([os.path.join(self.root, "main.cpp")], "main.cpp: no JSON"),
            ([os.path.join(self.root, "none.part")], "none.part: No such file"),
        ):
            with self.assertRaises(campaign.Refusal) as refused:
                campaign.merge(files, "this build")
            self.assertIn(refusal, str(refused.exception))

    def test_tries_again_what_survived_of_the_same_sources(self):
        file = os.path.join(self.root, "again.part")
        results = {0: trying.Result("killed", "toy", "A.B"), 1: trying.Result("survived"), 2: trying.Result("equal")}
        campaign.write_part(file, {"build": "this", "sources": "these"}, {"seed": 1}, 1, 1, results)
        self.assertEqual(list(campaign.taken_over(file, "these", {"seed": 1})), [0, 2])
        for sources, seed in (("those", 1), ("these", 2)):
            with self.assertRaises(campaign.Refusal):
                campaign.taken_over(file, sources, {"seed": seed})

    def test_refuses_stale_explanations(self):
        first = self.mutants[0]
        for explained, verdict, told in (({"src/gone.cpp F: x": "accepted: y"}, "killed", "no such mutant"),
                                         ({first.key: "accepted: y"}, "killed", "killed by"),
                                         ({first.key: "accepted: y"}, "survived", "")):  # fmt: skip
            try:
                report.check_explanations(explained, self.mutants, [(first, trying.Result(verdict))])
                self.assertEqual(told, "")
            except report.Stale as stale:
                self.assertIn(told, str(stale))


if __name__ == "__main__":
    unittest.main()
