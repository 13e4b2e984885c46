#!/usr/bin/env -S python3 -B
"""Breaks src/tavroops.cpp in systematic ways and tells which breaks no test notices.

Every mutant is the module with one small change (see mutants.py). The tests that caught it end its
run; one that passes them all is a survivor. survivors.txt lists those that cannot matter, each with
the reason. Mutants run inside a fence, see fence.py.

The exit code is 1 when fewer than 98 % of the mutants that compile are caught, when a survivor is
not listed, and when a listed one is caught or is no mutant any more.
"""

import argparse
import os
import random
import re
import subprocess
import sys
import threading
import time
from collections import Counter, defaultdict
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

import fence
from mutants import mutants_of, with_all

PROJECT = Path(__file__).resolve().parent.parent.parent
MODULE = "src/tavroops.cpp"
SURVIVORS = Path(__file__).resolve().parent / "survivors.txt"
ENOUGH = 98.0

TESTS = ("operations_tests", "faults_tests", "threads_tests")
REMEMBERED = 12  # the tests of a function's last mutants, tried first on its next
CONTROL_EVERY = 50  # after so many mutants the tests must pass with the module as it is


class Stop(Exception):
    """The run cannot go on."""


@dataclass
class Outcome:
    """What became of a mutant."""

    word: str  # "uncompiled", "caught", "survived"
    by: str = ""  # the test program that caught it
    timed_out: bool = False
    output: str = ""

    @property
    def test(self):
        """The test that failed, or else the one that never ended."""
        failed = re.search(r"^\[  FAILED  \] ([^\s,]+)", self.output, re.MULTILINE)
        started = re.findall(r"^\[ RUN      \] (\S+)", self.output, re.MULTILINE)
        return failed[1] if failed else (started or ["no test"])[-1]

    @property
    def last_words(self):
        """What that test has to say."""
        saying = self.output.partition(f"[ RUN      ] {self.test}\n")[2]
        saying = saying.partition("[  FAILED  ]")[0]
        return "\n".join(saying.splitlines()[:40])


def compile_file(file):
    """The errors; an index out of range is to end the program and not to pass by luck."""
    command = ["g++", "-std=c++17", "-O0", "-w", "-fmax-errors=0", "-D_GLIBCXX_ASSERTIONS"]
    command += [f"-I{PROJECT}/include", "-c", file, "-o", file.with_suffix(".o")]
    return subprocess.run(command, stderr=subprocess.PIPE, text=True).stderr


class Programs:
    """The test programs, each with all mutants in it."""

    def __init__(self, scratch, build, source, mutants):
        self.scratch = scratch
        self.objects = build / "tests/CMakeFiles"
        self.numbered = dict(enumerate(mutants))
        self.numbers = {mutant.id: number for number, mutant in self.numbered.items()}
        module = scratch / MODULE
        module.parent.mkdir(parents=True)
        self._compile_what_compiles(source, module)
        for name in TESTS:
            self._link(name, module)
        self.patience = {}  # how many seconds a program may take
        self.slow = {}  # its tests that take long and are better run last
        self.catchers = defaultdict(list)  # function: (program, test) of mutants caught before

    def _compile_what_compiles(self, source, module):
        """Leaves out the mutants that the compiler names in its errors."""
        while True:
            module.write_text(with_all(source, self.numbered))
            errors = compile_file(module)
            if not errors:
                return
            named = set(re.findall(r"^(\d+:\d+:[a-z]+\.\d+):", errors, re.MULTILINE))
            if not named:
                raise Stop(errors)
            self.numbered = {n: m for n, m in self.numbered.items() if m.id not in named}

    def _link(self, name, module):
        objects = [
            *self.objects.glob(f"{name}.dir/**/*.o"),
            *self.objects.glob("tavro_test_support.dir/**/*.o"),
        ]
        if not objects:
            raise Stop(f"{self.objects.parent.parent} holds no build of the tests")
        objects.append(module.with_suffix(".o"))
        libraries = ["-lgtest_main", "-lgtest", "-ldl", "-pthread"]
        command = ["g++", *objects, "-o", self.scratch / name, *libraries]
        linking = subprocess.run(command, stderr=subprocess.PIPE, text=True)
        if linking.returncode != 0:
            raise Stop(linking.stderr)

    def run(self, name, number, tests="*"):
        """Runs tests of a program: whether they pass, whether it had to be ended, its output."""
        fenced = fence.command(
            *(self.scratch, "env", f"MUTANT={number}"),
            *(self.scratch / name, "--gtest_fail_fast", f"--gtest_filter={tests}"),
        )
        with subprocess.Popen(
            fenced, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT
        ) as process:
            try:
                output, _ = process.communicate(timeout=self.patience.get(name, 300))
                timed_out = process.returncode in fence.OUT_OF_TIME
            except subprocess.TimeoutExpired:
                process.kill()  # and with it all that it started
                output, _ = process.communicate()
                timed_out = True
        output = output.decode(errors="replace")
        if "[==========] Running" not in output:
            raise Stop(f"{name} did not start: {output}")
        return process.returncode == 0, timed_out, output

    def run_control(self, name):
        """What a program prints when nothing is broken. A test that fails by chance must not pass
        for one that has caught a mutant."""
        passed, _, output = self.run(name, -1)
        if not passed:
            raise Stop(f"{name} fails with the module as it is:\n{output}")
        return output

    def measure(self):
        """How long the tests take when nothing is broken bounds how long they may take later."""
        for name in TESTS:
            started = time.monotonic()
            output = self.run_control(name)
            took = time.monotonic() - started
            self.patience[name] = 20 + 10 * took
            times = re.findall(r"       OK \] (\S+) \((\d+) ms\)", output)
            total = sum(int(duration) for _, duration in times)
            self.slow[name] = [test for test, duration in times if int(duration) > total / 20]
            print(f"{name} passes in {took:.1f} s", file=sys.stderr)
            for reason, count in Counter(re.findall(r": Skipped\n(.*)", output)).items():
                print(f"  {count} skipped: {reason}", file=sys.stderr)

    def _steps(self, function):
        """Which tests to run in which program, one step after the other: what has caught a mutant
        of this function before, then all, the slow ones last."""
        remembered = defaultdict(list)
        for name, test in self.catchers[function][-REMEMBERED:]:
            remembered[name].append(test)
        for name in TESTS:
            if remembered[name]:
                yield name, ":".join(remembered[name])
        for name in TESTS:
            yield name, "-" + ":".join(self.slow[name])
        for name in TESTS:
            if self.slow[name]:
                yield name, ":".join(self.slow[name])

    def judge(self, mutant):
        """Runs tests with the mutant until one fails."""
        number = self.numbers[mutant.id]
        if number not in self.numbered:
            return Outcome("uncompiled")
        for name, tests in self._steps(mutant.function):
            passed, timed_out, output = self.run(name, number, tests)
            if not passed:
                outcome = Outcome("caught", name, timed_out, output)
                catcher = (name, outcome.test)
                others = [known for known in self.catchers[mutant.function] if known != catcher]
                self.catchers[mutant.function] = others + [catcher]
                return outcome
        return Outcome("survived")


def keys_of(mutants):
    """For each mutant, by which survivors.txt knows it: the function and the changed lines, and a
    number where several mutants of a function look the same."""
    seen = Counter()
    keys = {}
    for mutant in mutants:
        look = (mutant.function, mutant.diff)
        seen[look] += 1
        heading = mutant.function + (f" #{seen[look]}" if seen[look] > 1 else "")
        keys[mutant.id] = f"{heading}\n{mutant.diff}"
    return keys


def listed_survivors():
    """The blocks of survivors.txt: heading and changed lines, then the reason, indented."""
    listed = set()
    for block in re.split(r"\n\s*\n", SURVIVORS.read_text()):
        lines = [line for line in block.splitlines() if line and not line.startswith("#")]
        if not lines:
            continue
        key = "\n".join(line for line in lines if not line.startswith("  "))
        if len(lines) < 4 or not lines[-1].startswith("  "):
            raise Stop(f"survivors.txt gives no reason for:\n{key}")
        listed.add(key)
    return listed


class Progress:
    """Tells on standard error how far the run is."""

    def __init__(self, total):
        self.total = total
        self.done = 0
        self.survived = 0
        self.started = time.monotonic()
        self.lock = threading.Lock()

    def tell(self, mutant, outcome):
        with self.lock:
            self.done += 1
            if outcome.word == "survived":
                self.survived += 1
                print(f"survived: {mutant.id} in {mutant.function}\n{mutant.diff}", file=sys.stderr)
            if self.done % 20 == 0 or self.done == self.total:
                each = (time.monotonic() - self.started) / self.done
                left = each * (self.total - self.done) / 60
                print(
                    f"{self.done} of {self.total}, {self.survived} survived, "
                    f"{left:.0f} minutes left",
                    file=sys.stderr,
                )


def judge_all(programs, chosen, jobs):
    progress = Progress(len(chosen))

    def judge(position):
        if position % CONTROL_EVERY == CONTROL_EVERY - 1:
            programs.run_control(TESTS[position // CONTROL_EVERY % len(TESTS)])
        outcome = programs.judge(chosen[position])
        progress.tell(chosen[position], outcome)
        return outcome

    with ThreadPoolExecutor(jobs) as pool:
        return list(pool.map(judge, range(len(chosen))))


def print_table(chosen, outcomes):
    """Made, compiled, caught, survived for each kind; returns the percentage that is caught."""
    print(f"{'kind':12}{'made':>7}{'compiled':>10}{'caught':>8}{'survived':>10}{'caught %':>10}")
    percentage = 0.0
    for kind in [*sorted({mutant.kind for mutant in chosen}), "all"]:
        words = Counter(
            outcome.word
            for mutant, outcome in zip(chosen, outcomes)
            if kind in (mutant.kind, "all")
        )
        made = sum(words.values())
        compiled = made - words["uncompiled"]
        percentage = 100 * words["caught"] / compiled if compiled else 100.0
        print(
            f"{kind:12}{made:7}{compiled:10}{words['caught']:8}{words['survived']:10}"
            f"{percentage:10.1f}"
        )
    catchers = Counter(outcome.by for outcome in outcomes if outcome.word == "caught")
    print("caught by " + ", ".join(f"{name}: {catchers[name]}" for name in TESTS))
    print(f"of these by a time limit: {sum(outcome.timed_out for outcome in outcomes)}")
    return percentage


def complaints_about(chosen, outcomes, keys, listed):
    """Where the outcomes and survivors.txt are at odds."""
    complaints = [
        f"listed as a survivor, but no mutant any more:\n{key}"
        for key in sorted(listed - set(keys.values()))
    ]
    for mutant, outcome in zip(chosen, outcomes):
        key = keys[mutant.id]
        if outcome.word == "survived" and key not in listed:
            complaints.append(f"survived, and is not listed ({mutant.id}):\n{key}")
        elif outcome.word != "survived" and key in listed:
            complaints.append(f"listed as a survivor, but {outcome.word} ({mutant.id}):\n{key}")
    return complaints


def choose(mutants, arguments):
    if arguments.only:
        unknown = set(arguments.only) - {mutant.id for mutant in mutants}
        if unknown:
            raise Stop(f"no such mutant: {', '.join(sorted(unknown))}")
        return [mutant for mutant in mutants if mutant.id in arguments.only]
    if arguments.sample:
        count = min(arguments.sample, len(mutants))
        picked = random.Random(arguments.seed).sample(range(len(mutants)), count)
        return [mutants[index] for index in sorted(picked)]
    return mutants


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--build", type=Path, default=PROJECT / "build/dev",
                        help="a build of the tests (default: build/dev)")
    parser.add_argument("--list", action="store_true", help="print the mutants, run nothing")
    parser.add_argument("--only", metavar="ID", nargs="+",
                        help="run these alone, and print what the tests say")
    parser.add_argument("--sample", type=int, metavar="N", help="run N of them, chosen at random")
    parser.add_argument("--seed", type=int, default=1, help="chooses the sample (default: 1)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), metavar="N",
                        help="mutants at a time (default: one for each processor)")
    arguments = parser.parse_args()
    arguments.build = arguments.build.resolve()

    source = (PROJECT / MODULE).read_text()
    mutants = mutants_of(source)
    if arguments.list:
        for mutant in mutants:
            print(f"{mutant.id} in {mutant.function}\n{mutant.diff}")
        return 0
    try:
        chosen = choose(mutants, arguments)
        listed = listed_survivors()
        programs = Programs(fence.enter(), arguments.build, source, mutants)
        programs.measure()
        outcomes = judge_all(programs, chosen, arguments.jobs)
    except (Stop, fence.NoFence) as reason:
        print(reason, file=sys.stderr)
        return 2
    if arguments.only:
        for mutant, outcome in zip(chosen, outcomes):
            print(f"{mutant.id} in {mutant.function}\n{mutant.diff}\n{outcome.word}")
            if outcome.word == "caught":
                print(f"by {outcome.test} in {outcome.by}:\n{outcome.last_words}\n")
    percentage = print_table(chosen, outcomes)
    complaints = complaints_about(chosen, outcomes, keys_of(mutants), listed)
    if chosen == mutants and percentage < ENOUGH:
        complaints.append(f"fewer than {ENOUGH:.0f} % are caught")
    for complaint in complaints:
        print(f"\n{complaint}")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
