#!/usr/bin/env python3
"""Cuts the power at every moment of the command's work, and judges what is found afterwards."""

import argparse
import collections
import multiprocessing
import os
import pty
import queue
import random
import shutil
import signal
import subprocess
import sys
import time
import zlib
from typing import NamedTuple

import disk
import judge
import scenarios
from disk import HarnessError, NOBODY
from judge import Fault

SKIPPED = 77
SCRATCH = "/mnt"  # a file system in memory, inside a mount namespace of our own
UNSHARE = ("unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc")
SHORT = ("copy-many", "copy-replace", "move-tree-across", "move-merge", "trash-many",
         "restore-tree", "empty", "undo-move-replace", "redo-trash-tree-across")


class Told(NamedTuple):
    Status: int
    Text: str


class Result(NamedTuple):
    Kind: str
    Name: str
    States: int
    Failing: int
    Rules: collections.Counter  # rule → states
    Examples: dict  # rule → text
    Verbs: collections.Counter  # how often undo, redo and resume led where


class Try:
    """One worker's place: the images, the recorder and the mount points."""

    def __init__(self, number, options):
        self.m_top = f"{SCRATCH}/{number}"
        self.m_root = f"{self.m_top}/root"
        self.m_options = options
        self.m_mounted = []
        self.m_resume = options.resume
        for name in ("root/a", "root/b", "images", "disk"):
            os.makedirs(f"{self.m_top}/{name}")
        self.m_home = f"{self.m_root}/{judge.HOME}"
        self.m_environment = {"HOME": self.m_home, "PATH": "/usr/bin:/bin", "TZ": "UTC",
                              "LC_ALL": "C.UTF-8", "GIO_USE_VFS": "local", "TAVRO_TRASH": "home"}

    # Running

    def run(self, program, words, answer="", pressed=(), log=-1):
        """Runs a program as an ordinary user, on a terminal where an answer is to be typed."""
        line = [word.replace("{b}", f"{self.m_root}/b") for word in [program, *words]]
        if program == "tavro":
            line[0] = f"{SCRATCH}/bin/tavro"
        if pressed:
            line = [f"{SCRATCH}/bin/presser", str(log), *self.neighbours(pressed), "--", *line]
        keyboard, terminal = pty.openpty() if answer else (None, None)
        process = subprocess.Popen(
            line, stdin=terminal if answer else subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=terminal if answer else subprocess.STDOUT, user=NOBODY, group=NOBODY,
            extra_groups=[], env=self.m_environment, cwd=self.m_home,
            pass_fds=[log] if pressed else [])
        if answer:
            os.write(keyboard, answer.encode())
        try:
            text = process.communicate(timeout=120)[0].decode(errors="replace")
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            return Told(-1, "did not end within two minutes")
        finally:
            for descriptor in (keyboard, terminal) if answer else ():
                os.close(descriptor)
        return Told(process.returncode, text)

    def neighbours(self, images):
        return [f"{self.m_root}/{image}/neighbour" for image in images]

    # Mounting

    def mount(self, kind, images, directory, direct=False):
        for image in images:
            disk.mount(kind, f"{directory}/{image}", f"{self.m_root}/{image}", direct)
            self.m_mounted.append(image)

    def unmount(self):
        while self.m_mounted:
            disk.unmount(f"{self.m_root}/{self.m_mounted.pop()}")

    # Preparing

    def blank(self, kind):
        """Images with the user's files on them, made once."""
        directory = f"{self.m_top}/{kind}"
        if not os.path.isdir(directory):
            os.makedirs(directory)
            for image in "ab":
                disk.make_file_system(kind, f"{directory}/{image}")
            self.mount(kind, "ab", directory)
            try:
                for image in "ab":
                    top = f"{self.m_root}/{image}"
                    os.chown(top, NOBODY, NOBODY)
                    with open(f"{top}/neighbour", "w", encoding="ascii") as file:
                        file.write("noise\n")
                        os.chown(file.fileno(), NOBODY, NOBODY)
                os.mkdir(self.m_home, 0o755)
                os.chown(self.m_home, NOBODY, NOBODY)
                scenarios.make_files(self.m_root, NOBODY, scenarios.layout())
            finally:
                self.unmount()
        return directory

    def prepare(self, kind, scenario, case):
        """The images before the command, and what went wrong on the way."""
        blank, prepared = self.blank(kind), f"{self.m_top}/prepared"
        shutil.rmtree(prepared, ignore_errors=True)
        os.mkdir(prepared)
        for image in scenario.images():
            copy_sparse(f"{blank}/{image}", f"{prepared}/{image}")
        self.mount(kind, scenario.images(), prepared)
        try:
            scenarios.make_files(self.m_root, NOBODY, scenario.Extra)
            for step in scenario.Earlier:
                told = self.run("tavro", step.Words, answer=step.Answer)
                if told.Status != 0:
                    return prepared, Fault("ran", said(" ".join(step.Words), told))
            text = judge.differs(self.eyes(scenario).look(), case.Before, case.TrashFree)
        finally:
            self.unmount()
        return prepared, Fault("ran", f"before the command: {text}") if text else None

    def eyes(self, scenario):
        known = scenarios.known_contents({**scenarios.layout(), **scenario.Extra})
        return judge.Eyes(self.m_root, known, scenario.images(), NOBODY)

    # Recording

    def record(self, kind, scenario, prepared, press):
        """Runs the command on a disk that remembers. Returns the recording, what the command said
        and what is seen after it without any power cut."""
        images = scenario.images()
        for image in images:
            copy_sparse(f"{prepared}/{image}", f"{self.m_top}/images/{image}")
        log, served = f"{self.m_top}/log", f"{self.m_top}/disk"
        recorder = subprocess.Popen([f"{SCRATCH}/bin/recorder", f"{self.m_top}/images", log,
                                     served])
        try:
            wait_for(f"{served}/mark", recorder)
            self.mount(kind, images, served, direct=True)
            with open(f"{served}/mark", "wb", buffering=0) as mark:
                mark.write(b"start")
                told = self.run(scenario.Program, scenario.Step.Words, scenario.Step.Answer,
                                images if press else (), mark.fileno())
                mark.write(f"exit {told.Status}".encode())
                subprocess.run([f"{SCRATCH}/bin/presser", str(mark.fileno()),
                                *self.neighbours(images), "--"], check=True,
                               pass_fds=[mark.fileno()])
                mark.write(b"committed")
                for image in images:
                    disk.sync(f"{self.m_root}/{image}")
                mark.write(b"end")
            seen = self.eyes(scenario).look()
        finally:
            self.unmount()
            recorder.terminate()
            recorder.wait()
        recording = disk.Recording(log, images)
        if recording.flushes("exit", "end") == 0:
            raise HarnessError(f"{kind}: what was synced after the command arrived without a flush")
        return recording, told, seen

    # Judging

    def judge_state(self, kind, scenario, case, done, resume):
        """All faults of the state that lies in the images, and the verb's outcome."""
        images, eyes = scenario.images(), self.eyes(scenario)
        if self.m_options.keep:
            shutil.rmtree(f"{self.m_top}/kept", ignore_errors=True)
            os.mkdir(f"{self.m_top}/kept")
            for image in images:
                copy_sparse(f"{self.m_top}/images/{image}", f"{self.m_top}/kept/{image}")
        try:
            self.mount(kind, images, f"{self.m_top}/images")
        except OSError as error:
            self.unmount()
            return [Fault("mount", str(error))], ""
        try:
            first = eyes.look()
            if scenario.Program != "tavro":
                return judge.judge(case, first, done), ""
            return self.settle(scenario, case, eyes, first, done, resume)
        finally:
            self.unmount()

    def settle(self, scenario, case, eyes, first, done, resume):
        """Runs on the state what a person would run, and judges after each."""
        faults = []
        history, listed, doctor = (self.run("tavro", [name])
                                   for name in ("history", "list", "doctor"))
        for name, told, allowed in (("history", history, (0,)), ("list", listed, (0,)),
                                    ("doctor", doctor, (0, 1))):
            if told.Status not in allowed:
                faults.append(Fault("says", said(name, told)))
        interrupted = judge.is_interrupted(history.Text)
        faults += judge.judge(case, first, done, interrupted)
        second = eyes.look()
        if second != first:
            faults += judge.judge(case, second, done, interrupted)
        faults += judge.judge_told(case, second, done, history.Text, doctor.Text)

        verb, expected = self.next_verb(scenario, case, done, interrupted, resume)
        if not verb:
            return faults, ""
        # Who was asked before is asked again, when the power went before the answer was kept.
        answer = scenario.Step.Answer if verb == "resume" else ""
        told = self.run("tavro", [verb], answer)
        third = eyes.look()
        # What is in neither world any more may be gone; what an undo brings back is in the old one.
        faults += judge.judge(case, third, False, settled=True)
        faults += judge.judge_settled(case, third, said(verb, told), told.Status, expected)
        if third.Hidden:
            faults += judge.judge_told(case, third, True, "", self.run("tavro", ["doctor"]).Text)
            self.run("tavro", ["doctor", "--mend-all"])
            mended = eyes.look()
            faults += judge.judge(case, mended, False, settled=True)
            faults += [Fault("leftover", f"{path} is there after doctor --mend-all")
                       for path in mended.Hidden]
        if told.Status not in (0, 1):
            faults.append(Fault("says", said(verb, told)))
        led = "new" if third.User == case.After.User else \
            "old" if third.User == case.Before.User else "neither"
        return faults, f"{verb} → {led}"

    def next_verb(self, scenario, case, done, interrupted, resume):
        """What to run next, and the world that it has to lead to (None: one of the two)."""
        name = scenario.Name.split("-")[0]
        if done:
            verb = "redo" if name == "undo" else "undo" if scenario.Undoable else ""
            return verb, case.Before
        if self.m_resume and (resume or name in ("delete", "empty")):
            return "resume", case.After if interrupted else None
        if name in ("delete", "empty") or not (interrupted or scenario.Undoable):
            return "", None  # an undo would take back what was done before
        return "undo", case.Before if interrupted and scenario.Undoable and name != "undo" else None

    def all_states(self, kind, scenario, count, rng):
        """Judges states of two recordings, one of the command alone, one where the file systems
        commit what they hold after each of its calls."""
        case = scenarios.case_of(scenario)
        result = Result(kind, scenario.Name, 0, 0, collections.Counter(), {}, collections.Counter())
        prepared, fault = self.prepare(kind, scenario, case)
        if fault:
            return tally(result, [fault], "preparing", "")
        left = count
        for press in (False, True):
            way = "pressed" if press else "alone"
            recording, told, seen = self.record(kind, scenario, prepared, press)
            faults = judge.judge(case, seen, True)
            if told.Status != 0:
                faults.append(Fault("ran", said("it", told)))
            result = tally(result, faults, f"{way}, no power cut", "")
            states = disk.choose_states(recording, left if press else count // 2, rng,
                                        disk.FILE_SYSTEMS[kind].Atomic)
            left -= len(states)
            bases = {image: (f"{prepared}/{image}", f"{self.m_top}/images/{image}")
                     for image in scenario.images()}
            for number, state in enumerate(disk.build_states(bases, recording, states)):
                done = told.Status == 0 and state.Cut >= recording.Marks["exit"]
                faults, verb = self.judge_state(kind, scenario, case, done, number % 2 == 1)
                where = f"{way}, {state.Way} at {state.Cut - recording.Marks['start']} of " \
                        f"{recording.Marks['exit'] - recording.Marks['start']}"
                self.keep(f"{kind}-{scenario.Name}", faults, set(result.Rules), where)
                result = tally(result, faults, where, verb)
        return result

    def keep(self, name, faults, known, where):
        """Keeps the images of the first state that breaks a rule, and what was found."""
        new = sorted({fault.Rule for fault in faults} - known)
        if self.m_options.keep and new:
            target = f"{self.m_options.keep}/{name}-{new[0]}"
            shutil.rmtree(target, ignore_errors=True)
            os.makedirs(self.m_options.keep, exist_ok=True)
            subprocess.run(["cp", "-a", "--sparse=always", f"{self.m_top}/kept", target],
                           check=True)
            with open(f"{target}/faults", "w", encoding="utf-8", errors="surrogateescape") as file:
                file.writelines(f"{line}\n" for line in (where, f"root: {self.m_root}", *faults))


def said(name, told):
    return f"{name} ended with {told.Status} ({' '.join(told.Text.split())[:200]})"


def tally(result, faults, where, verb):
    for rule in {fault.Rule for fault in faults}:
        result.Rules[rule] += 1
    for fault in faults:
        result.Examples.setdefault(fault.Rule, f"{fault.Text} ({where})")
    if verb:
        result.Verbs[verb] += 1
    return result._replace(States=result.States + 1, Failing=result.Failing + bool(faults))


def copy_sparse(source, target):
    subprocess.run(["cp", "--sparse=always", source, target], check=True)


def wait_for(path, process):
    for _ in range(1000):
        if os.path.exists(path):
            return
        if process.poll() is not None:
            break
        time.sleep(0.005)
    raise HarnessError("the recording file system does not start")


# Going through all of it

def work(number, options, jobs, results):
    place, chosen = Try(number, options), select(options)
    for kind, index in iter(jobs.get, None):
        scenario = chosen[index]
        seed = zlib.crc32(f"{options.seed} {kind} {scenario.Name}".encode())
        try:
            results.put(place.all_states(kind, scenario, options.states, random.Random(seed)))
        except Exception as error:  # told by the parent, which ends everything
            results.put(f"{kind} {scenario.Name}: {type(error).__name__}: {error}")


def usable(options):
    """The file systems of those asked for that can be made and mounted here."""
    found = []
    for kind in options.fs:
        image, target = f"{SCRATCH}/probe", f"{SCRATCH}/probed"
        os.makedirs(target, exist_ok=True)
        try:
            disk.make_file_system(kind, image)
            disk.mount(kind, image, target)
            disk.unmount(target)
            found.append(kind)
        except (OSError, HarnessError, subprocess.CalledProcessError) as error:
            print(f"skipped: {kind}: {error}", flush=True)
    return found


def select(options):
    of = scenarios.peers if options.peers else scenarios.specimens if options.specimens else \
        scenarios.all_scenarios
    chosen = [one for one in of() if one.Program == "tavro" or shutil.which(one.Program)]
    if options.only:
        chosen = [one for one in chosen if any(word in one.Name for word in options.only)]
    elif options.short and of is scenarios.all_scenarios:
        chosen = [one for one in chosen if one.Name in SHORT]
    return chosen


def report(result):
    verdict = f"FAIL {result.Failing:4} of" if result.Failing else "ok          "
    print(f"{result.Kind:6} {result.Name:28} {verdict} {result.States:4}  " +
          " ".join(f"{rule} {count}" for rule, count in sorted(result.Rules.items())), flush=True)
    for rule, example in sorted(result.Examples.items()):
        print(f"         {rule}: {example}", flush=True)


def summarise(results, kinds):
    print("\nrule         " + "".join(f"{kind + ': scenarios, states':>26}" for kind in kinds))
    for rule, text in judge.RULES.items():
        cells = [[result for result in results if result.Kind == kind and result.Rules[rule]]
                 for kind in kinds]
        if any(cells):
            print(f"{rule:13}" + "".join(f"{len(cell):18},{sum(one.Rules[rule] for one in cell):7}"
                                         for cell in cells) + f"   {text}")
    verbs = sum((result.Verbs for result in results), collections.Counter())
    print("\nafterwards: " + ", ".join(f"{verb} {count}" for verb, count in sorted(verbs.items())))
    failing = [result for result in results if result.Failing]
    print(f"{len(failing)} of {len(results)} scenarios fail, "
          f"{sum(one.Failing for one in results)} of {sum(one.States for one in results)} states")
    return bool(failing)


def try_all(options):
    """Inside: root of a mount namespace and the first process of a process namespace of our own."""
    disk.call("mount", b"tmpfs", SCRATCH.encode(), b"tmpfs", 0, b"mode=755")
    os.mkdir(f"{SCRATCH}/bin")
    for name in ("tavro", "recorder", "presser"):
        shutil.copy(getattr(options, name), f"{SCRATCH}/bin/{name}")
    helped = subprocess.run([f"{SCRATCH}/bin/tavro", "--help"], capture_output=True, check=False,
                            user=NOBODY, env={"HOME": "/nonexistent"})
    options.resume = b"resume" in helped.stdout
    kinds = usable(options)
    if not kinds:
        return SKIPPED
    jobs, results, chosen = multiprocessing.Queue(), multiprocessing.Queue(), select(options)
    started, finished = time.monotonic(), []
    for index in range(len(chosen)):
        for kind in kinds:
            jobs.put((kind, index))
    workers = [multiprocessing.Process(target=work, args=(number, options, jobs, results),
                                       daemon=True) for number in range(options.jobs)]
    for worker in workers:
        jobs.put(None)
        worker.start()
    while len(finished) < len(chosen) * len(kinds):
        try:
            result = results.get(timeout=5)
        except queue.Empty:
            if not any(worker.is_alive() for worker in workers):
                raise HarnessError("the workers are gone") from None
            continue
        if isinstance(result, str):
            raise HarnessError(result)
        finished.append(result)
        report(result)
    failed = summarise(finished, kinds)
    print(f"{time.monotonic() - started:.0f} seconds; " +
          ("resume tried" if options.resume else "the command has no resume: not tried"))
    if options.specimens:
        return blind(finished, chosen)
    return 1 if failed and not options.peers else 0


def blind(results, chosen):
    """Whether the judge has missed what is wrong with a specimen, or blamed one that is right."""
    expected, failed = {one.Name: one.Expected for one in chosen}, 0
    for result in results:
        missed = expected[result.Name] - set(result.Rules)
        if missed or not expected[result.Name] and result.Failing:
            print(f"the judge is wrong about {result.Name} on {result.Kind}: "
                  f"it missed {sorted(missed)}, and said {sorted(result.Rules)}")
            failed = 1
    print("the judge " + ("is wrong" if failed else
                          "sees what is wrong with each specimen, and blames no right one"))
    return failed


def reasons_to_skip(options):
    if os.geteuid() != 0:
        yield "it needs root, to mount"
    for path in ("/dev/fuse", "/dev/loop-control"):
        if not os.path.exists(path):
            yield f"there is no {path}"
    for name in ("unshare", *(disk.FILE_SYSTEMS[kind].Make[0] for kind in options.fs)):
        if not shutil.which(name):
            yield f"{name} is not installed"
            return
    tried = subprocess.run([*UNSHARE, "true"], check=False, capture_output=True, text=True)
    if tried.returncode != 0:
        yield f"namespaces are not permitted: {tried.stderr.strip()}"


def enter(arguments):
    """Starts this again in namespaces of its own. Whatever ends it ends all that it started, and
    with the last of these go the mounts, the loop devices and the files."""
    inside = subprocess.Popen(
        [*UNSHARE, sys.executable, "-B", os.path.abspath(__file__), "--inside", *arguments],
        preexec_fn=lambda: disk.libc.prctl(1, signal.SIGKILL))  # PR_SET_PDEATHSIG
    try:
        return inside.wait()
    finally:
        inside.kill()
        inside.wait()


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tavro", required=True, help="the command to try")
    parser.add_argument("--recorder", required=True, help="powercut_recorder, as built")
    parser.add_argument("--presser", required=True, help="powercut_presser, as built")
    parser.add_argument("--short", action="store_true", help="a few scenarios, 30 states each")
    parser.add_argument("--peers", action="store_true",
                        help="cp, mv and gio trash instead; never fails")
    parser.add_argument("--specimens", action="store_true",
                        help="commands that are wrong in known ways; fails when the judge is")
    parser.add_argument("--only", action="append", metavar="TEXT",
                        help="scenarios whose names hold TEXT")
    parser.add_argument("--fs", action="append", choices=list(disk.FILE_SYSTEMS))
    parser.add_argument("--states", type=int, help="of each scenario; 200 by default")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--keep", type=os.path.abspath, metavar="DIRECTORY",
                        help="keep the images of the first state that breaks a rule there")
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args(arguments)
    options.fs = options.fs or list(disk.FILE_SYSTEMS)
    for name in ("tavro", "recorder", "presser"):
        if not os.access(getattr(options, name), os.X_OK):
            parser.error(f"{getattr(options, name)} is no program")
    options.states = options.states or (30 if options.short else 60 if options.specimens else 200)
    if options.inside:
        try:
            return try_all(options)
        except HarnessError as error:
            print(f"the harness does not work here: {error}", file=sys.stderr)
            return 2
    reasons = list(reasons_to_skip(options))
    for reason in reasons:
        print(f"skipped: {reason}")
    return SKIPPED if reasons else enter(arguments)


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except KeyboardInterrupt:
        sys.exit(130)
