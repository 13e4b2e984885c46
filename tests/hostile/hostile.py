#!/usr/bin/env python3
"""Runs the command on file systems that misbehave, and judges what a person finds afterwards."""

import argparse
import collections
import contextlib
import ctypes
import mmap
import os
import random
import shutil
import signal
import struct
import subprocess
import sys
import time
from typing import NamedTuple

SKIPPED, NOBODY = 77, 65534
SCRATCH = "/mnt"  # a file system in memory, inside a mount namespace of our own
UNSHARE = ("unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc")
libc = ctypes.CDLL(None, use_errno=True)

# Misbehaviours that are there all the time, and those that strike one call: each call in turn.
STANDING = ("none", "fsync-fails", "dirsync-fails", "close-fails", "no-rename-flags", "no-links",
            "no-attributes", "no-modes", "folds-case", "coarse-times", "drifting-inodes",
            "forgotten-inodes", "skips-entry", "ends-early", "no-types", "size-large",
            "size-small", "size-zero")
STRIKING = ("stale", "read-fails", "write-fails")
# With these everything can be done: refusing is a fault.
MILD = ("none", "no-rename-flags", "no-links", "no-attributes", "no-modes", "coarse-times",
        "forgotten-inodes", "no-types")
NEVER = 1 << 40
STRIKES = 5  # of a scenario, at most, unless all are wanted


class Scenario(NamedTuple):
    Command: str
    Earlier: tuple = ()  # commands before it, while the file system behaves
    Undo: bool = True
    Home: str = "plain/home"  # where the trash is
    Status: int = 0  # where nothing misbehaves
    Mild: tuple = ()  # no reason to end otherwise


V, P, H, REPLACE = "vol/from", "plain/from", "vol/home", "--on-conflict overwrite"
SCENARIOS = {
    "copy-file-within": Scenario(f"copy {V}/file.bin vol/to/"),
    "copy-small-off": Scenario(f"copy {V}/small.txt plain/to/"),
    "copy-tree-within": Scenario(f"copy {V}/tree vol/to/"),
    "copy-tree-onto": Scenario(f"copy {P}/tree vol/to/"),
    "copy-tree-off": Scenario(f"copy {V}/tree plain/to/"),
    "copy-replace-onto": Scenario(f"copy {REPLACE} {P}/taken.txt vol/to/", (), False),
    "copy-cases-onto": Scenario(f"copy {P}/cases vol/to/"),
    "move-file-within": Scenario(f"move {V}/file.bin vol/to/"),
    "move-file-onto": Scenario(f"move {P}/file.bin vol/to/"),
    "move-file-off": Scenario(f"move {V}/file.bin plain/to/"),
    "move-small-off": Scenario(f"move {V}/small.txt plain/to/"),
    "move-tree-within": Scenario(f"move {V}/tree vol/to/"),
    "move-tree-onto": Scenario(f"move {P}/tree vol/to/"),
    "move-tree-off": Scenario(f"move {V}/tree plain/to/"),
    "move-cases-onto": Scenario(f"move {P}/cases vol/to/"),
    "move-pair-off": Scenario(f"move {V}/pair plain/to/"),
    "copy-pair-onto": Scenario(f"copy {P}/pair vol/to/"),
    "move-pair-onto": Scenario(f"move {P}/pair vol/to/"),
    "move-replace-within": Scenario(f"move {REPLACE} {V}/taken.txt vol/to/", (), False),
    "move-replace-onto": Scenario(f"move {REPLACE} {P}/taken.txt vol/to/", (), False),
    "move-replace-off": Scenario(f"move {REPLACE} {V}/taken.txt plain/to/", (), False),
    "trash-file": Scenario(f"trash {V}/file.bin"),
    "trash-tree": Scenario(f"trash {V}/tree"),
    "restore-file": Scenario("restore file.bin", (f"trash {V}/file.bin",), False),
    "restore-tree": Scenario("restore tree", (f"trash {V}/tree",), False),
    "empty": Scenario("empty --force", (f"trash {V}/tree",), False),
    "trash-file-at-home": Scenario(f"trash {V}/file.bin", Home=H),
    "trash-tree-at-home": Scenario(f"trash {V}/tree", Home=H),
    "trash-tree-into-home": Scenario(f"trash {P}/tree", Home=H),
    "restore-tree-at-home": Scenario("restore tree", (f"trash {V}/tree",), False, Home=H),
    "restore-tree-from-home": Scenario("restore tree", (f"trash {P}/tree",), False, Home=H),
    "empty-at-home": Scenario("empty --force", (f"trash {V}/tree",), False, H),
    "delete-tree": Scenario(f"delete --force {V}/tree", (), False),
    "rename-file": Scenario(f"rename {V}/file.bin other.bin"),
    "rename-case": Scenario(f"rename {V}/small.txt Small.txt", Mild=("folds-case",)),
    "copy-onto-case": Scenario(f"copy {REPLACE} {V}/small.txt {V}/Small.txt"),
    "move-onto-case": Scenario(f"move {REPLACE} {V}/small.txt {V}/Small.txt"),
    "delete-home": Scenario("delete --force vol/home", (), False, H, 1),
    "trash-trash": Scenario("trash vol/home/.local", (f"trash {V}/small.txt",), False, H, 1),
    "move-above-home": Scenario("move vol/home plain/to/", (), False, H, 1),
    "rename-tree": Scenario(f"rename {V}/tree new/wood"),
    "mkdir": Scenario("mkdir vol/to/new/directory"),
    "undo-copy": Scenario("undo", (f"copy {P}/tree vol/to/",), False),
    "undo-move-within": Scenario("undo", (f"move {V}/tree vol/to/",), False),
    "undo-move-onto": Scenario("undo", (f"move {P}/tree vol/to/",), False),
    "undo-move-off": Scenario("undo", (f"move {V}/tree plain/to/",), False),
    "undo-trash": Scenario("undo", (f"trash {V}/tree",), False),
    "undo-trash-at-home": Scenario("undo", (f"trash {V}/tree",), False, H),
}

# What does not hold yet, or cannot: misbehaviours, rule, reason, scenarios. They are run all the
# same, and that one holds by now is a failure too, unless it is a matter of the moment.
ONTO = "copy-tree-onto copy-replace-onto copy-cases-onto move-file-onto move-tree-onto " \
       "move-cases-onto copy-pair-onto move-pair-onto move-replace-onto restore-file " \
       "restore-tree trash-tree-into-home undo-move-off undo-trash"
MOMENTARY = STRIKING + ("coarse-times",)
UNLINKED = "a file with several names cannot be looked at once one of them is removed"
UNREADABLE = "a record that cannot be read passes for one that is not there: empty ends with 0"
KNOWN = [
    (" ".join(MILD), "refused", UNLINKED, "move-pair-off"),
    ("none no-rename-flags no-attributes no-modes no-types forgotten-inodes coarse-times",
     "undo-refused", UNLINKED, "copy-pair-onto"),
    ("none no-rename-flags no-attributes no-modes no-types coarse-times", "undo-refused", UNLINKED,
     "move-pair-onto"),
    ("forgotten-inodes", "refused", "two names of a file have two numbers", "move-pair-onto"),
    ("stale", "sentence", "the sentence has no path in it", "rename-tree mkdir"),
    ("drifting-inodes", "left", "what cannot be recognised is not removed, and not named", ONTO),
    ("drifting-inodes", "record", "the same, in the trash", "trash-tree-into-home"),
    ("skips-entry ends-early", "done", "nobody can know of an entry that no listing has",
     "copy-tree-within copy-tree-off"),
    ("size-small", "done", "a record is read as far as its size says: half a path",
     "restore-tree-at-home"),
    ("size-zero read-fails stale", "done", UNREADABLE, "empty-at-home"),
    ("stale", "left", "what is made although the call fails is not looked for",
     ONTO + " copy-file-within copy-tree-within copy-onto-case"),
    ("stale", "record", "the same, in the trash", "trash-tree-into-home"),
    ("stale", "done", "a record that is made although the call fails takes its own name",
     "trash-file-at-home trash-tree-at-home trash-tree-into-home"),
    ("stale", "done", "what cannot be looked at is not guarded", "move-above-home"),
]


class Told(NamedTuple):
    Status: int
    Text: str


class Fault(NamedTuple):
    Rule: str
    Text: str


# What is on the disks

def make_files():
    """The user's files, the same on the hostile file system and on the other one."""
    rng = random.Random(1)
    for top in ("backing", "plain"):
        for name in os.listdir(f"{SCRATCH}/{top}"):
            shutil.rmtree(f"{SCRATCH}/{top}/{name}")
        for name in ("home", "state", "from/tree/sub", "from/cases", "from/pair", "to"):
            os.makedirs(f"{SCRATCH}/{top}/{name}")
        files = {"from/file.bin": 300000, "from/small.txt": 3000, "from/taken.txt": 2000,
                 "to/taken.txt": 1000, "from/pair/one": 600, "from/tree/one.txt": 4000,
                 "from/tree/sub/two.bin": 150000, "from/tree/sub/three.txt": 500,
                 "from/tree/sub/four.txt": 5000}
        if top == "plain":  # a file system that does not fold case cannot hold these
            files.update({"from/cases/name": 700, "from/cases/NAME": 800})
        for name, size in files.items():
            with open(f"{SCRATCH}/{top}/{name}", "wb") as file:
                file.write(rng.randbytes(size))
        tree = f"{SCRATCH}/{top}/from/tree"
        pair = f"{SCRATCH}/{top}/from/pair"
        os.link(f"{pair}/one", f"{pair}/other")
        os.symlink("one.txt", f"{tree}/link")
        with contextlib.suppress(OSError):  # not every kernel keeps it in memory
            os.setxattr(f"{tree}/one.txt", "user.note", b"kept where it can be")
        for directory, names, files in os.walk(f"{SCRATCH}/{top}"):
            for name in [".", *names, *files]:
                os.chown(f"{directory}/{name}", NOBODY, NOBODY, follow_symlinks=False)


def look():
    """Each path with what is there: the bytes of a file, the text of a link, None for a directory.
    What is on the hostile file system is seen behind its back."""
    world = {}
    for top, shown in (("backing", "vol"), ("plain", "plain")):
        for directory, names, files in os.walk(f"{SCRATCH}/{top}"):
            names[:] = [name for name in names if name != "state"]  # the history
            below = directory.replace(f"{SCRATCH}/{top}", shown, 1)
            for name in names + files:
                path = f"{directory}/{name}"
                if os.path.islink(path):
                    world[f"{below}/{name}"] = os.readlink(path)
                elif os.path.isdir(path):
                    world[f"{below}/{name}"] = None
                else:
                    with open(path, "rb") as file:
                        world[f"{below}/{name}"] = file.read()
    return world


def is_trash(path):
    return "/.Trash" in path or "/Trash" in path or "/.local" in path


def visible(world):
    """Without hidden names and without what the trash is made of besides its items."""
    return {path: what for path, what in world.items() if "/.tavro-" not in path and
            (not is_trash(path) or "/files/" in path)}


def contents(world):
    return {what for what in world.values() if isinstance(what, bytes)}


# Judging

def judge(before, after, now, told, command=""):
    """`after` is what the command leads to where nothing misbehaves."""
    shown, faults = visible(now), []
    hidden = {path for path in now if "/.tavro-" in path}
    unnamed = {path for path in hidden if path.split("/.tavro-")[1].split("/")[0] not in told.Text}
    if told.Status not in (0, 1):
        faults.append(Fault("ended", "it crashed or hung"))
    safe = contents(shown) | contents({path: now[path] for path in hidden - unnamed})
    for content in contents(visible(before)) & contents(visible(after)) - safe:
        places = [path for path, what in before.items() if what == content]
        faults.append(Fault("lost", f"what was at {' and '.join(places)} is nowhere"))
    for path, what in shown.items():
        said = told.Status != 0 and path in told.Text
        if isinstance(what, bytes) and what not in contents(before) and not said:
            faults.append(Fault("short", f"{path} holds {len(what)} bytes that are not the user's"))
    if told.Status == 0 and shown != visible(after):
        differing = sorted(path for path in shown.keys() | visible(after).keys()
                           if shown.get(path, 0) != visible(after).get(path, 0))
        faults.append(Fault("done", f"it said done, but not so at {', '.join(differing)}"))
    if unnamed:
        faults.append(Fault("left", f"{', '.join(sorted(unnamed))} stays, unnamed"))
    for path in now:
        place, _, name = path.partition("/files/")
        if is_trash(path) and name and "/" not in name and \
                "Path=" not in (now.get(f"{place}/info/{name}.trashinfo") or b"").decode():
            faults.append(Fault("record", f"{path} has no record"))
    names = {os.path.basename(path) for path in [*before, *command.split()]}
    if told.Status != 0 and not any(f"'{name}'" in told.Text for name in names) and \
            f"'{SCRATCH}/" not in told.Text:
        faults.append(Fault("sentence", "it named nothing"))
    return faults


def judge_answer(misbehaviour, scenario, told, late):
    faults = []
    if late and told.Status == 0:
        faults.append(Fault("untold", f"{late} times it heard that written data is lost"))
    if misbehaviour in scenario.Mild + MILD and told.Status != scenario.Status:
        faults.append(Fault("refused", "nothing stood in the way"))
    return faults


def outcome(before, after, now, told):
    if told.Status == 0:
        return "done"
    return "refused" if visible(now) == visible(before) else \
        "done, with a message" if visible(now) == visible(after) else "in part, with a message"


# Running

class World:
    """The hostile file system, mounted with one misbehaviour, and the other one beside it."""

    def __init__(self, options, misbehaviour=None):
        with open(f"{SCRATCH}/control", "wb") as file:
            file.write(bytes(mmap.PAGESIZE))
        with open(f"{SCRATCH}/control", "r+b") as file:
            self.m_control = mmap.mmap(file.fileno(), mmap.PAGESIZE)
        self.m_tavro, self.m_misbehaviour, self.m_server = options.tavro, misbehaviour, None
        self.Met = 0
        places = [f"{SCRATCH}/backing", f"{SCRATCH}/vol"]
        if not misbehaviour:  # a true file system in its place
            libc.mount(*(place.encode() for place in places), None, 4096, None)  # MS_BIND
            return
        self.m_server = subprocess.Popen([options.server, *places, f"{SCRATCH}/control",
                                          str(NOBODY), misbehaviour])
        for _ in range(1000):
            if os.path.ismount(f"{SCRATCH}/vol"):
                return
            time.sleep(0.005)
        raise SystemExit("the hostile file system does not start")

    def end(self):
        libc.umount2(f"{SCRATCH}/vol".encode(), 2)  # MNT_DETACH
        if self.m_server:
            self.m_server.wait()

    def run(self, scenario, command, hostile=True, strike=NEVER):
        struct.pack_into("=qqqq", self.m_control, 0, hostile, strike, 0, 0)
        process = subprocess.Popen(
            [self.m_tavro, *command.split()], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, user=NOBODY, group=NOBODY, extra_groups=[], cwd=SCRATCH,
            env={"HOME": f"{SCRATCH}/{scenario.Home}", "LC_ALL": "C.UTF-8", "TAVRO_TRASH": "home",
                 "XDG_STATE_HOME": f"{SCRATCH}/plain/state"})
        try:
            return Told(0, process.communicate(timeout=30)[0].decode(errors="replace")) \
                ._replace(Status=process.returncode)
        except subprocess.TimeoutExpired:
            process.kill()
            return Told(-1, "")
        finally:
            self.m_control[0:8] = bytes(8)

    def counted(self):
        """How often there was an occasion to misbehave, and how many late errors there were."""
        return struct.unpack_from("=qq", self.m_control, 16)

    def prepare(self, scenario):
        make_files()
        for command in scenario.Earlier:
            told = self.run(scenario, command, hostile=False)
            if told.Status != 0:
                raise SystemExit(f"the preparing '{command}' failed: {told.Text}")
        return look()

    def honest(self, name, scenario):
        """What the command, and then its undo, lead to where nothing misbehaves."""
        before = self.prepare(scenario)
        told, after = self.run(scenario, scenario.Command, hostile=False), look()
        if told.Status != scenario.Status or (before == after) != (told.Status != 0) or \
                judge(before, after, after, told, scenario.Command):
            raise SystemExit(f"{name} fails where nothing misbehaves: {told}")
        if scenario.Undo and self.run(scenario, "undo", hostile=False).Status != 0:
            raise SystemExit(f"the undo of {name} fails where nothing misbehaves")
        return after, look()

    def attempt(self, scenario, after, back, strike=NEVER):
        """The outcome, its faults, and what was said."""
        before = self.prepare(scenario)
        told = self.run(scenario, scenario.Command, strike=strike)
        now, (met, late) = look(), self.counted()
        self.Met += met
        faults = judge(before, after, now, told, scenario.Command)
        faults += judge_answer(self.m_misbehaviour, scenario, told, late)
        if told.Status == 0 and scenario.Undo and not faults and strike == NEVER:
            undone = self.run(scenario, "undo")
            later = judge(now, back, look(), undone)
            later += judge_answer(self.m_misbehaviour, scenario, undone, self.counted()[1])
            faults += [Fault(f"undo-{fault.Rule}", f"{fault.Text}: {undone}") for fault in later]
        return outcome(before, after, now, told), faults, told


def try_one(world, misbehaviour, scenario, worlds, strikes):
    """Yields what came of each attempt."""
    if misbehaviour in STANDING:
        yield "", world.attempt(scenario, *worlds)
        return
    world.prepare(scenario)
    world.run(scenario, scenario.Command)
    calls = world.counted()[0]
    for number in range(1, calls + 1, -(-calls // strikes) or 1):
        yield f", call {number} of {calls}", world.attempt(scenario, *worlds, number)


def try_misbehaviour(options, misbehaviour, honest):
    """Prints what came of it. Returns whether all is as it should be."""
    world, outcomes, lines, seen = World(options, misbehaviour), collections.Counter(), [], set()
    known = {(name, rule): reason for which, rule, reason, names in KNOWN
             for name in names.split() if misbehaviour in which.split() and name in honest}
    try:
        for name, worlds in honest.items():
            strikes = NEVER if options.all else STRIKES
            for where, (came, faults, told) in try_one(world, misbehaviour, SCENARIOS[name],
                                                       worlds, strikes):
                outcomes[came] += 1
                if options.show:
                    print(f"  {name}{where}: {came}: {' / '.join(told.Text.split(chr(10)))}")
                for fault in faults:
                    key = (name, fault.Rule)
                    if key not in known and key not in seen:
                        lines.append(f"  FAILS {name}{where}: {fault.Rule}: {fault.Text}; it said "
                                     f"{told.Status} {' '.join(told.Text.split())}")
                    seen.add(key)
    finally:
        world.end()
    gone = known.keys() - seen if misbehaviour not in MOMENTARY else ()
    lines += [f"  HOLDS NOW, and is known no more: {name}: {rule}" for name, rule in sorted(gone)]
    if not world.Met and not options.only and misbehaviour not in ("none", "forgotten-inodes"):
        lines.append("  FAILS: there was no occasion to misbehave")
    bWell = bool(outcomes) and not lines
    met = collections.Counter(known[key] for key in known.keys() & seen)
    lines += [f"  known, {count} of them: {reason}" for reason, count in met.items()]
    print(f"{misbehaviour}: {sum(outcomes.values())} runs: " +
          ", ".join(f"{count} {came}" for came, count in sorted(outcomes.items())))
    print("\n".join(lines), end="\n" if lines else "", flush=True)
    return bWell


def try_all(options):
    if libc.mount(b"tmpfs", SCRATCH.encode(), b"tmpfs", 0, b"mode=755") != 0:
        raise SystemExit("no file system in memory can be mounted")
    for name in ("vol", "backing", "plain"):
        os.mkdir(f"{SCRATCH}/{name}")
    for program in ("tavro", "server"):  # where they were built others may not be let in
        shutil.copy(getattr(options, program), f"{SCRATCH}/{program}")
        setattr(options, program, f"{SCRATCH}/{program}")
    world = World(options)
    honest = {name: world.honest(name, scenario) for name, scenario in SCENARIOS.items()
              if options.only in name}
    world.end()
    chosen = options.misbehaviour or STANDING + STRIKING
    results = [try_misbehaviour(options, misbehaviour, honest) for misbehaviour in chosen]
    return 0 if all(results) else 1


def reasons_to_skip():
    if os.geteuid() != 0:
        return "it needs root, to mount"
    if not os.path.exists("/dev/fuse"):
        return "there is no /dev/fuse"
    if not shutil.which("unshare"):
        return "unshare is not installed"
    tried = subprocess.run([*UNSHARE, "true"], check=False, capture_output=True, text=True)
    return f"namespaces are not permitted: {tried.stderr.strip()}" if tried.returncode else ""


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tavro", required=True, help="the command to try")
    parser.add_argument("--server", required=True, help="hostile_fs, as built")
    parser.add_argument("--misbehaviour", action="append", choices=STANDING + STRIKING)
    parser.add_argument("--only", default="", metavar="TEXT", help="scenarios with TEXT in them")
    parser.add_argument("--all", action="store_true", help="strike every call, not a choice")
    parser.add_argument("--show", action="store_true", help="show what was said in each run")
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args(arguments)
    if options.inside:
        return try_all(options)
    reason = reasons_to_skip()
    if reason:
        print(f"skipped: {reason}")
        return SKIPPED
    # Whatever ends this ends all that it started, and with the last of these go the mounts.
    inside = subprocess.Popen(
        [*UNSHARE, sys.executable, "-B", os.path.abspath(__file__), "--inside", *arguments],
        preexec_fn=lambda: libc.prctl(1, signal.SIGKILL))  # PR_SET_PDEATHSIG
    try:
        return inside.wait()
    finally:
        inside.kill()
        inside.wait()


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
