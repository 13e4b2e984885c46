#!/usr/bin/env python3
"""Eight commands at once on one history and one trash, some stopped, some killed; then a judgement.

Each worker runs one command after another on files of its own and on those that all share. Every file
has bytes of its own, which tell whether it is whole. At the end what was interrupted is resumed or
undone, and then: no bytes are lost but those that were deleted for good, each item has its record,
nothing hung, the database is sound, `tavro doctor` is content, and the history is true. Last, all
that can be undone is undone, and the bytes are looked for again.
"""

import argparse
import collections
import contextlib
import json
import os
import random
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time

WORKERS = 8
LONGEST = 30  # seconds that a command may take while it is not stopped
OPENING, NEW_NAME = "This is file ", "file-"
SIZES = (1, 200, 5000, 70000)
ENDED_BY = {signal.SIGINT: 130, signal.SIGTERM: 143}
HISTORY = ".local/state/tavro/history.db"
DONE = 0  # a state
MOVED, COPIED, TRASHED, CREATED = range(4)  # roles of steps


def bytes_of(number):
    """The contents of a file: they begin with its number and follow from it."""
    text = f"{OPENING}{number:08d}.\n".encode()
    return text * SIZES[number % len(SIZES)]


def number_in(path):
    """The number of the file at a path, or nothing when it is not whole."""
    with open(path, "rb") as file:
        text = file.read()
    digits = text[len(OPENING):len(OPENING) + 8]
    return int(digits) if digits.isdigit() and text == bytes_of(int(digits)) else None


def entries_below(top):
    """The paths of all that is below a directory."""
    for directory, directories, files in os.walk(top):
        for name in directories + files:
            yield os.path.join(directory, name)


def is_hidden(path):
    return any(part.startswith(".tavro-") for part in path.split("/"))


class Operation:
    """An operation of the history, as it was seen again and again."""

    def __init__(self, number, before):
        self.Number, self.Row, self.Steps, self.Rest = number, None, [], None
        self.Paths = set()  # of all steps that it ever had
        self.Since = self.Quiet = before  # it did not put anything anywhere before that,
        self.Until = before  # and has not acted after that

    def see(self, row, connection, now):
        """Who takes an operation on leaves a mark in its row, so a row that is the same, of one that
        is not on its way, tells that nobody was at it."""
        if row == self.Row and not self.is_on_its_way():
            self.Quiet = now
            return
        if self.Rest != DONE:
            self.Since = self.Quiet
        self.Row, self.Until = row, now
        if not self.is_on_its_way():
            self.Rest = row[1]
        self.Steps = connection.execute(
            "SELECT role, source, target, inode FROM step WHERE operation = ? AND number < ?",
            (self.Number, row[2])).fetchall()
        self.Steps = [(role, os.fsdecode(source), os.fsdecode(target), inode)
                      for role, source, target, inode in self.Steps]
        self.Paths.update(path for step in self.Steps for path in step[1:3] if path)

    def miss(self, now):
        """It was dropped, perhaps after it had been undone."""
        self.Until = now if self.Row else self.Until
        self.Row = None

    def is_on_its_way(self):
        return self.Row and self.Row[1] > 2

    def results(self):
        """The steps whose files are to be at their targets."""
        if not self.Row or self.Row[1] != DONE:
            return []
        if self.Row[0] > 5:  # a deletion
            return []
        main = (TRASHED, MOVED, MOVED, COPIED, CREATED, TRASHED)[self.Row[0]]
        return [step for step in self.Steps if step[0] == main]


class World:
    """The scratch home, the places beside it, and what is known of them."""

    def __init__(self, tavro, seed):
        self.Tavro, self.Seed = tavro, seed
        self.Home = tempfile.mkdtemp(prefix="tavro-stress-")
        self.Tops = [self.Home]
        other = "/dev/shm"
        if os.access(other, os.W_OK) and os.stat(other).st_dev != os.stat(self.Home).st_dev:
            self.Tops.append(tempfile.mkdtemp(prefix="tavro-stress-", dir=other))
        self.Trash = os.path.join(self.Home, ".local/share/Trash")
        self.Shared = [self.make(top, "shared") for top in self.Tops]
        self.Lock = threading.Lock()
        self.Count = 0
        self.Deleted, self.Gone = set(), set()  # paths, and numbers of files, for good
        self.Restored = set()
        self.Operations, self.Looked = {}, 0.0  # what was seen of the history, and when last
        self.Tally = collections.Counter()
        self.Faults = []
        self.Log = []
        self.Slowest = 0.0
        self.Environment = {**os.environ, "HOME": self.Home, "LC_ALL": "C.UTF-8",
                            "TAVRO_TRASH": "home"}  # across file systems it is copied
        for name in ("XDG_STATE_HOME", "XDG_DATA_HOME", "TAVRO_SYNC"):
            self.Environment.pop(name, None)

    @staticmethod
    def make(top, name):
        path = os.path.join(top, name)
        os.makedirs(path, exist_ok=True)
        return path

    def new_file(self, directory):
        with self.Lock:
            number, self.Count = self.Count, self.Count + 1
        with open(os.path.join(directory, NEW_NAME + str(number)), "xb") as file:
            file.write(bytes_of(number))

    def say(self, fault):
        with self.Lock:
            self.Faults.append(fault)
        print(f"FAULT: {fault}", flush=True)

    def run(self, *arguments):
        """A command to which nothing is done. Returns its exit code and what it printed."""
        done = subprocess.run([self.Tavro, *arguments], env=self.Environment, cwd=self.Home,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=300)
        return done.returncode, os.fsdecode(done.stdout), os.fsdecode(done.stderr)

    def look(self):
        """Keeps what the history has of each operation. Who has run a command looks when that has
        ended, so that an operation that another one drops is known, too."""
        path = os.path.join(self.Home, HISTORY)
        if not os.path.exists(path):
            return
        with self.Lock, contextlib.closing(
                sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=LONGEST)) as connection:
            now = time.monotonic()
            try:
                rows = connection.execute(
                    "SELECT id, kind, state, steps, staging FROM operation").fetchall()
            except sqlite3.OperationalError:
                if self.Operations:
                    raise
                return  # it is just being created
            for number, *row in rows:
                one = self.Operations.setdefault(number, Operation(number, self.Looked))
                one.see(row, connection, now)
            for number in self.Operations.keys() - {row[0] for row in rows}:
                self.Operations[number].miss(now)
            self.Looked = now

    def remove(self):
        for top in self.Tops:
            shutil.rmtree(top)


class Worker(threading.Thread):
    """One command after another, until the time is up."""

    def __init__(self, world, index, until):
        super().__init__()
        self.World, self.Until = world, until
        self.Random = random.Random(f"{world.Seed}/{index}")
        self.Own = [world.make(top, f"worker-{index}") for top in world.Tops]
        self.Made = 0
        for _ in range(6):
            world.new_file(self.Own[0])

    def run(self):
        try:
            while time.monotonic() < self.Until:
                self.step()
        except Exception as error:  # a thread that dies must not pass for a quiet one
            self.World.say(f"the worker itself failed: {error!r}")
            raise

    # --- What is done ---

    def a_directory(self):
        return self.Random.choice(self.Own + self.World.Shared)

    def some(self, directories, most):
        """Names in one of the directories, whatever others do to them meanwhile."""
        directory = self.Random.choice(directories)
        names = sorted(name for name in os.listdir(directory) if not name.startswith("."))
        names = self.Random.sample(names, min(len(names), self.Random.randint(1, most)))
        return [os.path.join(directory, name) for name in names]

    def a_name(self):
        self.Made += 1
        return self.Random.choice([f"name-{self.Random.randrange(6)}", f"{self.name}-{self.Made}"])

    def trashed(self):
        try:
            names = sorted(os.listdir(os.path.join(self.World.Trash, "files")))
        except FileNotFoundError:
            names = []
        return self.Random.sample(names, min(len(names), self.Random.randint(1, 3)))

    def arguments(self):
        """The next command, or nothing when it has nothing to work on."""
        verb = self.Random.choices(
            ["trash", "copy", "move", "rename", "mkdir", "restore", "undo", "redo", "resume",
             "delete", "history", "list"], [5, 5, 5, 3, 2, 4, 3, 2, 2, 1, 1, 1])[0]
        everywhere = self.Own + self.World.Shared
        if verb in ("undo", "redo", "resume", "history", "list"):
            return [verb]
        if verb == "mkdir":
            return [verb, os.path.join(self.a_directory(), self.a_name(), self.a_name())]
        if verb == "restore":
            names = self.trashed()
            self.World.Restored.update(names)
            return [verb, "--keep-both", *names] if names else None
        if verb == "delete":
            # A name like this is never given to another file, so that it is known what goes.
            paths = [path for path in self.some(self.Own[:1], 9) if NEW_NAME in path][:1]
            if paths:
                self.forget(paths[0])
            return [verb, "-f", *paths] if paths else None
        paths = self.some(everywhere, 1 if verb == "rename" else 4)
        if not paths:
            return None
        if verb == "trash":
            return [verb, "-q", *paths]
        if verb == "rename":
            return [verb, paths[0], os.path.join(self.a_directory(), self.a_name())]
        target = self.a_directory() + "/"
        if self.Random.random() < 0.3:
            target = os.path.join(target, self.a_name()) + "/"
        how = self.Random.choice(["overwrite", "skip", "keep-both"])
        return [verb, "--on-conflict", how, *paths, target]

    def step(self):
        if self.Random.random() < 0.15:
            self.World.new_file(self.Own[0])
        arguments = self.arguments()
        if arguments is None:
            return
        environment = dict(self.World.Environment)
        if self.Random.random() < 0.6:
            environment["TAVRO_SYNC"] = "no"
        self.oversee(arguments, environment)

    def forget(self, path):
        """What is at a path may be gone for good from now on."""
        with self.World.Lock:
            self.World.Deleted.add(path)
            self.World.Gone.add(int(path.rpartition(NEW_NAME)[2].split()[0]))

    # --- What is done to those who do it ---

    def oversee(self, arguments, environment):
        """Runs a command; stops, interrupts or kills it; judges how it ended."""
        world = self.World
        fate = self.Random.choices(["", "stop", "kill", "interrupt"], [80, 6, 10, 4])[0]
        delay = self.Random.expovariate(100)
        begun, held, sent = time.monotonic(), 0.0, 0
        process = subprocess.Popen(  # pylint: disable=consider-using-with
            [world.Tavro, *arguments], env=environment, cwd=world.Home, stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        if fate:
            time.sleep(delay)
            sent = {"kill": signal.SIGKILL, "stop": signal.SIGSTOP}.get(
                fate, self.Random.choice(list(ENDED_BY)))
            process.send_signal(sent)
        if fate == "stop":
            held = self.Random.uniform(0.1, 2)
            time.sleep(held)
            process.send_signal(signal.SIGCONT)
        try:
            output, errors = process.communicate(timeout=LONGEST + 5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            world.say(f"hung: {arguments}")
            return
        took = time.monotonic() - begun - held
        with world.Lock:
            world.Slowest = max(world.Slowest, took)
            world.Log.append((begun, time.monotonic(), process.returncode, fate, arguments,
                              os.fsdecode(output + errors)))
        world.look()
        if took > LONGEST:
            world.say(f"took {took:.0f} s: {arguments}")
        self.judge(arguments, process.returncode, os.fsdecode(errors), sent)

    def judge(self, arguments, code, errors, sent):
        world = self.World
        with world.Lock:
            world.Tally[f"{arguments[0]}"] += 1
            world.Tally["killed"] += code == -signal.SIGKILL
            world.Tally["stopped"] += sent == signal.SIGSTOP
            world.Tally["interrupted"] += code in ENDED_BY.values()
            world.Tally["refused or failed"] += code == 1
        allowed = {0, 1}
        if sent == signal.SIGKILL:
            allowed.add(-signal.SIGKILL)
        if sent in ENDED_BY:  # before it is caught it ends the process, too
            allowed |= {ENDED_BY[sent], -sent}
        if code not in allowed:
            world.say(f"ended with {code}: {arguments}: {errors}")
        for text in ("in use by another process", "cannot be used", "damaged", "is now at"):
            if text in errors and sent not in ENDED_BY:
                world.say(f"{arguments} said: {errors}")


# --- The judgement ---


def settle(world):
    """Resumes what was interrupted, as far as that goes. What stands in its way by now is undone
    later, in its turn. Tells how many were resumed, and are left."""
    for count in range(1000):
        interrupted = [one for one in operations(world) if one["interrupted"]]
        if not interrupted:
            return count, 0
        code, _, errors = world.run("resume")
        world.look()
        if code != 0:
            print(f"not resumed: {errors.strip()}")
            return count, len(interrupted)
    world.say("there is always something to resume")
    return count, 0


def operations(world):
    code, text, errors = world.run("history", "--json")
    if code != 0 or errors:
        world.say(f"history ended with {code}: {errors}")
        return []
    return json.loads(text)


def judge_bytes(world, when):
    """Each file is whole somewhere a person looks, unless it was deleted. Hidden names may be left,
    as many as are told, but nothing is under these alone."""
    found, hidden, count = set(), set(), 0
    for top in world.Tops:
        for path in entries_below(top):
            of_trash = (os.path.join(world.Trash, name) for name in ("info", "directorysizes"))
            if "/.local/state/" in path or path.startswith(tuple(of_trash)):
                continue
            if is_hidden(path):
                count += is_hidden(os.path.basename(path))
                if os.path.isfile(path):
                    hidden.add(number_in(path))
            elif os.path.isfile(path) and not os.path.islink(path):
                number = number_in(path)
                if number is None:
                    world.say(f"{when}, not whole: {path}")
                found.add(number)
    lost = set(range(world.Count)) - found - world.Gone
    for number in sorted(lost):
        world.say(f"{when}, file {number} is " + ("hidden" if number in hidden else "lost"))
    print(f"{when}, {len(found)} of {world.Count} files are seen, {len(world.Gone)} were deleted; "
          f"{count} hidden names are left")


def judge_trash(world, when):
    """Each item has its record, and doctor names what was left: records that have no item, and
    copies that got no name."""
    files, info = (os.path.join(world.Trash, name) for name in ("files", "info"))
    if not os.path.isdir(files):
        return
    items = set(os.listdir(files))
    records = {name.removesuffix(".trashinfo") for name in os.listdir(info)}
    for name in sorted(items - records):
        if not is_hidden(name):
            world.say(f"{when}, an item has no record: {name}")
    code, text, errors = world.run("doctor")
    left = items ^ records
    unnamed = [name for name in left if f"/{name}'" not in text and f"/{name}.tra" not in text]
    if code != bool(left) or unnamed or errors or (left and len(text.splitlines()) != len(left)):
        world.say(f"{when}, doctor ended with {code}: {text}{errors}; it did not name {unnamed}")
    print(f"{when}, {len(items)} items in the trash; doctor names {len(left)}")


def pairs_of(arguments, output):
    """From where to where a command led, by its words; nothing for what it does not tell."""
    verb, *words = arguments
    words = [word for word in words if word.startswith("/")]
    if verb in ("copy", "move"):
        yield from ((word, words[-1] + os.path.basename(word)) for word in words[:-1])
    elif verb == "rename":
        yield tuple(words)
    else:
        yield from ((word, "") for word in words if verb == "trash")
    for line in output.splitlines():
        source, _, target = re.sub("^(Copied|Moved) ", "", line.strip()).partition(" -> ")
        if source.startswith("/") and verb != "mkdir":
            yield source, target


def is_at_or_below(path, top):
    return path == top or path.startswith(top + "/")


def told_by_commands(world):
    """By path: when each command had ended that may have changed what is there, and its pair."""
    told = collections.defaultdict(list)
    for _, end, _, _, arguments, output in world.Log:
        for start, goal in pairs_of(arguments, output):
            told[goal].append((end, start, goal))
            if arguments[0] != "copy":
                told[start].append((end, start, goal))
    return told


def is_told(world, commands, operation, source, target):
    """Whether others that acted no earlier tell of a path or of a directory above it: operations, or
    commands, whose operations may have been undone and dropped before anybody looked."""
    above = {target[:end] for end in range(1, len(target) + 1) if target[end:end + 1] in ("", "/")}
    return any(
        end >= operation.Since
        and not (is_at_or_below(source, start) and is_at_or_below(target, goal))
        for path in above for end, start, goal in commands[path]
    ) or any(other is not operation and other.Until >= operation.Since and above & other.Paths
             for other in world.Operations.values())


def is_there(path, inode):
    try:
        return os.lstat(path).st_ino == inode or not inode
    except OSError:
        return False


def judge_history(world):
    """What an operation that is done has put somewhere is there, that very file, unless it is told
    who took it: by others, a restore of that item, a deletion, or a roll-back that said so."""
    elsewhere = set(world.Deleted)
    for _, _, _, _, _, output in world.Log:
        if "ollback failed" in output or "moving back failed" in output:
            elsewhere.update(output.split("'")[1::2])
    commands, told, there = told_by_commands(world), 0, 0
    for one in world.Operations.values():
        for role, source, target, inode in one.results():
            told += 1
            there += is_there(target, inode)
            names = {os.path.basename(path) for path in (source, target)}
            if not (is_there(target, inode) or target in elsewhere
                    or (role == TRASHED and names & world.Restored)
                    or is_told(world, commands, one, source, target)):
                world.say(f"operation {one.Number} is done, and what it has put to '{target}' is "
                          "not there")
    return f"{told} entries, {there} of which are where it says"


def judge_database(world):
    path = os.path.join(world.Home, HISTORY)
    with sqlite3.connect(path) as connection:
        for (text,) in connection.execute("PRAGMA integrity_check"):
            if text != "ok":
                world.say(f"the database: {text}")
    connection.close()


def operations_to_undo(world):
    return [one for one in operations(world) if not one["undone"]]


def undo_all(world):
    """Undoes what can be undone, and lets go of what cannot: its files may be deleted, say. Nothing
    is interrupted then. Tells how many were undone."""
    undone = 0
    for _ in range(3000):
        code, _, errors = world.run("undo", "-q", "--no-sync", "--skip")
        undone += code == 0
        if code != 0 and not operations_to_undo(world):
            break
        if code != 0:
            world.Tally["not undone"] += 1
            print(f"not undone: {errors.strip()}")
            code, _, errors = world.run("history", "--drop")
            if code != 0:
                world.say(f"neither undone nor dropped: {errors}")
                break
    if any(one["interrupted"] for one in operations(world)):
        world.say("something is still interrupted")
    return undone


def judge(world):
    resumed, left = settle(world)
    print(f"resumed {resumed} that were interrupted, {left} are left")
    judge_bytes(world, "after resuming")
    judge_trash(world, "after resuming")
    judge_database(world)
    print(f"the history tells of {judge_history(world)}")
    print(f"undone: {undo_all(world)} operations")
    judge_bytes(world, "after all undos")
    judge_trash(world, "after all undos")
    judge_database(world)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tavro", required=True)
    parser.add_argument("--seconds", type=float,
                        default=float(os.environ.get("TAVRO_STRESS_SECONDS", "6")))
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 32))
    parser.add_argument("--keep", action="store_true", help="leave the scratch directories, with a log in the first")
    arguments = parser.parse_args()
    print(f"seed {arguments.seed}, {WORKERS} workers, {arguments.seconds:g} s", flush=True)
    world = World(os.path.abspath(arguments.tavro), arguments.seed)
    until = time.monotonic() + arguments.seconds
    workers = [Worker(world, index, until) for index in range(WORKERS)]
    for worker in workers:
        worker.start()
    for worker in workers:
        worker.join()
    judge(world)
    print(", ".join(f"{name} {world.Tally[name]}" for name in sorted(world.Tally)))
    print(f"files {world.Count}, slowest command {world.Slowest:.1f} s")
    if arguments.keep:
        with open(os.path.join(world.Home, "log"), "x", encoding="utf-8") as file:
            file.writelines(f"{entry}\n" for entry in sorted(world.Log))
        print(*world.Tops)
    else:
        world.remove()
    print(f"{len(world.Faults)} faults")
    sys.exit(1 if world.Faults else 0)


if __name__ == "__main__":
    main()
