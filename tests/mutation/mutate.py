#!/usr/bin/env -S python3 -B
"""Breaks the module and the engine in systematic ways and tells which breaks no test notices.

Every mutant is one source with one small change (see mutants.py). The tests that caught it end its
run; one that passes them all is a survivor. survivors.txt lists those that cannot matter, each with
the reason. Mutants run inside a fence, see fence.py.

The exit code is 1 when fewer than 98 % of the mutants of the module that compile are caught, or 95 %
of those of the engine; when a survivor of the module is not listed, and when a listed one is caught
or is no mutant any more.
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
SURVIVORS = Path(__file__).resolve().parent / "survivors.txt"

REMEMBERED = 12  # the tests of a function's last mutants, tried first on its next
CONTROL_EVERY = 50  # after so many mutants the tests must pass with the module as it is
QUICK = 0.02  # seconds that a test may take to be among the first that are tried
SLOW = 1  # seconds that a test takes to be among the last


class Stop(Exception):
    """The run cannot go on."""


@dataclass(frozen=True)
class Part:
    """What is broken by itself, and tested by programs of its own."""

    name: str
    sources: str  # below the project
    tests: tuple
    objects: tuple  # beside those of the tests: where they are in a build
    enough: float  # per cent of the mutants that are caught at least


MODULE = Part(
    "module",
    "src/*.cpp",
    ("operations_tests", "faults_tests", "threads_tests"),
    (),
    98.0,
)
ENGINE = Part(
    "engine",
    "engine/*.cpp",
    ("engine_tests",),
    ("engine/CMakeFiles/tavro_engine.dir", "CMakeFiles/tavroops.dir"),
    95.0,
)


@dataclass(frozen=True)
class Source:
    """One source with its mutants."""

    part: Part
    name: str  # below the project
    text: str
    mutants: list

    def key_of(self, mutant, count):
        """By which survivors.txt knows a mutant: the function, with the source where that is of the
        engine, and the changed lines; and a number where several of a function look the same."""
        of = "" if self.part is MODULE else f"{self.name} "
        return f"{of}{mutant.function}" + (f" #{count}" if count > 1 else "") + f"\n{mutant.diff}"

    def keys(self):
        seen = Counter()
        keys = {}
        for mutant in self.mutants:
            look = (mutant.function, mutant.diff)
            seen[look] += 1
            keys[mutant.id] = self.key_of(mutant, seen[look])
        return keys


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
    command += [f"-I{PROJECT}/include", f"-I{PROJECT}/engine", "-c", file, "-o", file.with_suffix(".o")]
    return subprocess.run(command, stderr=subprocess.PIPE, text=True).stderr


class Programs:
    """The test programs of a source, each with all the mutants in it that are run."""

    def __init__(self, scratch, build, source, chosen, times, tests):
        self.scratch = scratch
        self.build = build
        self.source = source
        self.tests = source.part.tests
        self.filter = tests
        self.times = times  # of each program: its tests and how many seconds each takes
        self.numbered = dict(enumerate(chosen))
        self.numbers = {mutant.id: number for number, mutant in self.numbered.items()}
        broken = scratch / source.name
        broken.parent.mkdir(parents=True, exist_ok=True)
        self._compile_what_compiles(source.text, broken)
        for name in self.tests:
            self._link(name, broken.with_suffix(".o"))
        self.catchers = defaultdict(list)  # function: (program, test) of mutants caught before

    def _compile_what_compiles(self, text, broken):
        """Leaves out the mutants that the compiler names in its errors."""
        while True:
            broken.write_text(with_all(text, self.numbered))
            errors = compile_file(broken)
            if not errors:
                return
            named = set(re.findall(r"^(\d+:\d+:[a-z]+\.\d+):", errors, re.MULTILINE))
            if not named:
                raise Stop(errors)
            self.numbered = {n: m for n, m in self.numbered.items() if m.id not in named}

    def _link(self, name, broken):
        tests = self.build / "tests/CMakeFiles"
        folders = [tests / f"{name}.dir", tests / "tavro_test_support.dir"]
        folders += [self.build / folder for folder in self.source.part.objects]
        whole = Path(self.source.name).name + ".o"
        objects = [
            *(one for folder in folders[:2] for one in folder.glob("**/*.o")),
            *(one for folder in folders[2:] for one in folder.glob("**/*.o") if one.name != whole),
        ]
        if not objects:
            raise Stop(f"{self.build} holds no build of the tests")
        libraries = ["-lgtest_main", "-lgtest", "-lsqlite3", "-ldl", "-pthread"]
        command = ["g++", *objects, broken, "-o", self.scratch / name, *libraries]
        linking = subprocess.run(command, stderr=subprocess.PIPE, text=True)
        if linking.returncode != 0:
            raise Stop(linking.stderr)

    def run(self, name, number, tests=()):
        """Runs tests of a program, all that are wanted when none is named: whether they pass,
        whether it had to be ended, its output. How long they take when nothing is broken bounds how
        long they may take."""
        times = self.times.get(name, {})
        usual = sum(times.get(test, 0) for test in tests or times) if times else 120
        wanted = ":".join(tests) or self.filter
        fenced = fence.command(
            *(self.scratch, 15 + int(3 * usual), "env", f"MUTANT={number}"),
            *(self.scratch / name, "--gtest_fail_fast", f"--gtest_filter={wanted}"),
        )
        with subprocess.Popen(
            fenced, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT
        ) as process:
            try:
                output, _ = process.communicate(timeout=20 + 10 * usual)
                timed_out = process.returncode in fence.OUT_OF_TIME
            except subprocess.TimeoutExpired:
                process.kill()  # and with it all that it started
                output, _ = process.communicate()
                timed_out = True
        output = output.decode(errors="replace")
        if "[==========] Running" not in output:
            raise Stop(f"{name} did not start: {output}")
        return process.returncode == 0, timed_out, output

    def run_control(self, name, tests=()):
        """What a program prints when nothing is broken. A test that fails by chance must not pass
        for one that has caught a mutant."""
        passed, _, output = self.run(name, -1, tests)
        if not passed:
            raise Stop(f"{name} fails with the module as it is:\n{output}")
        return output

    def measure(self):
        """How long each test takes when nothing is broken. That is asked once for all sources; of
        the later ones the quick tests alone must pass."""
        for name in self.tests:
            if name in self.times:
                self.run_control(name, self._groups(name)[0])
                continue
            started = time.monotonic()
            output = self.run_control(name)
            print(f"{name} passes in {time.monotonic() - started:.1f} s", file=sys.stderr)
            times = re.findall(r"       OK \] (\S+) \((\d+) ms\)", output)
            self.times[name] = {test: int(duration) / 1000 for test, duration in times}
            for reason, count in Counter(re.findall(r": Skipped\n(.*)", output)).items():
                print(f"  {count} skipped: {reason}", file=sys.stderr)

    def _groups(self, name):
        """The tests of a program that are quick, those that are slow and better run last, and
        between them the others."""
        groups = ([], [], [])
        for test, duration in self.times[name].items():
            groups[0 if duration <= QUICK else 1 if duration <= SLOW else 2].append(test)
        return groups

    def _steps(self, function):
        """Which tests to run in which program, one step after the other: what has caught a mutant
        of this function before, then all, the slow ones last."""
        remembered = defaultdict(list)
        for name, test in self.catchers[function][-REMEMBERED:]:
            remembered[name].append(test)
        yield from remembered.items()
        for group in range(3):
            for name in self.tests:
                if self._groups(name)[group]:
                    yield name, self._groups(name)[group]

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
            tests = programs.tests
            programs.run_control(tests[position // CONTROL_EVERY % len(tests)])
        outcome = programs.judge(chosen[position])
        progress.tell(chosen[position], outcome)
        return outcome

    with ThreadPoolExecutor(jobs) as pool:
        return list(pool.map(judge, range(len(chosen))))


def print_table(part, judged):
    """Made, compiled, caught, survived for each kind; returns the percentage that is caught."""
    print(f"{part.name:12}{'made':>7}{'compiled':>10}{'caught':>8}{'survived':>10}{'caught %':>10}")
    percentage = 0.0
    for kind in [*sorted({mutant.kind for _, mutant, _ in judged}), "all"]:
        words = Counter(
            outcome.word for _, mutant, outcome in judged if kind in (mutant.kind, "all")
        )
        made = sum(words.values())
        compiled = made - words["uncompiled"]
        percentage = 100 * words["caught"] / compiled if compiled else 100.0
        print(
            f"{kind:12}{made:7}{compiled:10}{words['caught']:8}{words['survived']:10}"
            f"{percentage:10.1f}"
        )
    catchers = Counter(outcome.by for *_, outcome in judged if outcome.word == "caught")
    print("caught by " + ", ".join(f"{name}: {catchers[name]}" for name in part.tests))
    print(f"of these by a time limit: {sum(outcome.timed_out for *_, outcome in judged)}")
    return percentage


def complaints_about(part, sources, judged, listed):
    """Where the outcomes and survivors.txt are at odds."""
    keys = {source.name: source.keys() for source in sources}
    names = {source.name for source in sources}
    possible = {key for known in keys.values() for key in known.values()}
    complaints = [
        f"listed as a survivor, but no mutant any more:\n{key}"
        for key in sorted(listed - possible)
        if (key.split(" ")[0] in names if part is ENGINE else not key.startswith("engine/"))
    ]
    for source, mutant, outcome in judged:
        key = keys[source.name][mutant.id]
        if outcome.word == "survived" and key not in listed and part is MODULE:
            complaints.append(f"survived, and is not listed ({mutant.id}):\n{key}")
        elif outcome.word != "survived" and key in listed:
            complaints.append(f"listed as a survivor, but {outcome.word} ({mutant.id}):\n{key}")
    return complaints


def sources_of(part, wanted):
    """The sources of a part that are wanted; all when none is named."""
    for file in sorted(PROJECT.glob(part.sources)):
        name = str(file.relative_to(PROJECT))
        if not wanted or name in wanted or part.name in wanted:
            yield Source(part, name, file.read_text(), mutants_of(file.read_text()))


def choose(sources, arguments):
    """For each source, the mutants that are run."""
    every = [(source, mutant) for source in sources for mutant in source.mutants]
    if arguments.only:
        unknown = set(arguments.only) - {mutant.id for _, mutant in every}
        if unknown:
            raise Stop(f"no such mutant: {', '.join(sorted(unknown))}")
        every = [one for one in every if one[1].id in arguments.only]
    elif arguments.sample:
        count = min(arguments.sample, len(every))
        picked = random.Random(arguments.seed).sample(range(len(every)), count)
        every = [every[index] for index in sorted(picked)]
    chosen = defaultdict(list)
    for source, mutant in every:
        chosen[source.name].append(mutant)
    return chosen


def judge_source(scratch, source, chosen, times, arguments):
    """(source, mutant, outcome) of each that is run."""
    print(f"{source.name}: {len(chosen)} mutants", file=sys.stderr)
    programs = Programs(scratch, arguments.build, source, chosen, times, arguments.tests)
    programs.measure()
    outcomes = judge_all(programs, chosen, arguments.jobs)
    for mutant, outcome in zip(chosen, outcomes):
        if arguments.only:
            print(f"{mutant.id} in {mutant.function}\n{mutant.diff}\n{outcome.word}")
            if outcome.word == "caught":
                print(f"by {outcome.test} in {outcome.by}:\n{outcome.last_words}\n")
    return [(source, mutant, outcome) for mutant, outcome in zip(chosen, outcomes)]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--build", type=Path, default=PROJECT / "build/dev",
                        help="a build of the tests (default: build/dev)")
    parser.add_argument("--of", metavar="SOURCE", nargs="+", default=[],
                        help="break these alone: module, engine, engine/names.cpp …")
    parser.add_argument("--list", action="store_true", help="print the mutants, run nothing")
    parser.add_argument("--only", metavar="ID", nargs="+",
                        help="run these alone, and print what the tests say")
    parser.add_argument("--sample", type=int, metavar="N", help="run N of them, chosen at random")
    parser.add_argument("--seed", type=int, default=1, help="chooses the sample (default: 1)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), metavar="N",
                        help="mutants at a time (default: one for each processor)")
    parser.add_argument("--tests", metavar="FILTER", default="*",
                        help="a filter of GoogleTest; fewer tests are faster and catch less")
    arguments = parser.parse_args()
    arguments.build = arguments.build.resolve()

    parts = {part.name: list(sources_of(part, arguments.of)) for part in (MODULE, ENGINE)}
    sources = [source for part in parts.values() for source in part]
    known = {name for source in sources for name in (source.name, source.part.name)}
    if set(arguments.of) - known:
        parser.error(f"nothing to break: {', '.join(sorted(set(arguments.of) - known))}")
    if arguments.list:
        for source in sources:
            for mutant in source.mutants:
                print(f"{source.name} {mutant.id} in {mutant.function}\n{mutant.diff}")
        return 0
    judged = defaultdict(list)
    try:
        chosen = choose(sources, arguments)
        listed = listed_survivors()
        scratch = fence.enter()
        times = {}
        for source in sources:
            if chosen[source.name]:
                judged[source.part.name] += judge_source(
                    scratch, source, chosen[source.name], times, arguments
                )
    except (Stop, fence.NoFence) as reason:
        print(reason, file=sys.stderr)
        return 2
    complaints = []
    for part in (MODULE, ENGINE):
        if judged[part.name]:
            percentage = print_table(part, judged[part.name])
            complaints += complaints_about(part, parts[part.name], judged[part.name], listed)
            if not arguments.only and not arguments.sample and percentage < part.enough:
                complaints.append(f"fewer than {part.enough:.0f} % of the {part.name} are caught")
    for complaint in complaints:
        print(f"\n{complaint}")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
