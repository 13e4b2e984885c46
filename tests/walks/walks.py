#!/usr/bin/env python3
"""Walks at random through the command, and undoes in any order: each undo has to give back exactly
what its operation changed, and nothing else; one that is refused has to change nothing.

What an operation changed is learned by looking before and after it. Names, bytes, modes, times of
files and extended attributes count. Nothing may be lost but what was deleted for good.
"""

import argparse
import json
import os
import random
import shutil
import stat
import subprocess
import sys
import tempfile

NAMES = ("a", "b", "c d", "e\n", "-f", "[g]*", "h.log", "i.log")


class Wrong(Exception):
    """The command did what it should not have done."""


def is_in(path, tops):
    return any(path == top or path.startswith(top + "/") for top in tops)


class World:
    """A home, and places, on different file systems where there are some; what was done, and what that changed."""

    def __init__(self, tavro, seed):
        self.m_tavro = tavro
        self.m_rng = random.Random(seed)
        self.m_tops = [tempfile.mkdtemp(prefix="tavro-walk-")]
        if os.access("/dev/shm", os.W_OK):
            self.m_tops.append(tempfile.mkdtemp(prefix="tavro-walk-", dir="/dev/shm"))
        self.m_home = f"{self.m_tops[0]}/home"
        self.m_places = [f"{top}/here" for top in self.m_tops]
        for path in (self.m_home, *self.m_places):
            os.mkdir(path)
        self.m_count = 0
        self.m_gone = set()  # bytes that were deleted for good
        # Of operations that can be undone, by their numbers: all that was, and what was changed.
        self.m_changes = {}
        self.m_log = []

    def remove(self):
        for top in self.m_tops:
            shutil.rmtree(top)

    def run(self, *words):
        environment = {"HOME": self.m_home, "PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8",
                       "TAVRO_TRASH": "home", "TAVRO_SYNC": "no",
                       "ASAN_OPTIONS": "detect_leaks=0"}
        done = subprocess.run([self.m_tavro, *words], env=environment, cwd=self.m_places[0],
                              stdin=subprocess.DEVNULL, capture_output=True, check=False)
        text = (done.stdout + done.stderr).decode(errors="replace")
        self.m_log.append(f"{done.returncode}: tavro {' '.join(map(repr, words))}\n{text}")
        if done.returncode not in (0, 1):
            raise Wrong("it ended with neither 0 nor 1")
        return done.returncode

    # Looking

    @staticmethod
    def entry(path):
        status = os.lstat(path)
        kind, mode = stat.S_IFMT(status.st_mode), stat.S_IMODE(status.st_mode)
        if kind == stat.S_IFDIR:
            return "directory", mode
        if kind == stat.S_IFLNK:
            return "link", os.readlink(path)
        with open(path, "rb") as file:
            data = file.read()
        try:
            mark = os.getxattr(path, "user.mark")
        except OSError:
            mark = b""
        return "file", data, mode, status.st_mtime_ns, mark

    def tree(self):
        seen = {}
        for place in self.m_places:
            for above, directories, files in os.walk(place):
                for name in directories + files:
                    path = os.path.join(above, name)
                    seen[path] = self.entry(path)
        return seen

    def trash(self):
        return f"{self.m_home}/.local/share/Trash"

    def bytes_in_trash(self):
        found = set()
        for above, _, files in os.walk(f"{self.trash()}/files"):
            for name in files:
                path = os.path.join(above, name)
                if not os.path.islink(path):
                    with open(path, "rb") as file:
                        found.add(file.read())
        return found

    def history(self):
        done = subprocess.run([self.m_tavro, "history", "--json"], env={"HOME": self.m_home},
                              capture_output=True, check=True)
        return json.loads(done.stdout)

    # Checking

    def check_nothing_lost(self, seen):
        there = {one[1] for one in seen.values() if one[0] == "file"} | self.bytes_in_trash()
        all_bytes = {f"{number}".encode() for number in range(1, self.m_count + 1)}
        if lost := all_bytes - there - self.m_gone:
            raise Wrong(f"lost: {lost}")
        items = set(os.listdir(f"{self.trash()}/files")) if os.path.isdir(self.trash()) else set()
        records = {name.removesuffix(".trashinfo")
                   for name in os.listdir(f"{self.trash()}/info")} if items else set()
        if items - records:
            raise Wrong(f"items without a record: {items - records}")

    def check_undone(self, known, change, before, after):
        """After an undo: what its operation changed is as it was, all else as before the undo. What
        was moved, or copied, has gone with what is in it by now."""
        pairs = [(one["fromPath"], one["toPath"]) for one in known["entries"] if "fromPath" in one]
        bases = [to for _, to in pairs if to] if known["kind"] != "mkdir" else []
        expected = {path: one for path, one in before.items() if not is_in(path, bases)}
        if known["kind"] in ("move", "rename"):
            for source, target in pairs:
                expected.update((source + path[len(target):], one) for path, one in before.items()
                                if is_in(path, [target]))
        back = [source for source, _ in pairs] if known["kind"] in ("move", "rename") else []
        then, changed = change
        for path in changed.difference(then):
            expected.pop(path, None)
        for path, was in then.items():
            if path in changed and not is_in(path, back) or is_in(path, bases):
                expected[path] = was
        wrong = {path for path in expected.keys() | after.keys()
                 if expected.get(path) != after.get(path)}
        for path in sorted(wrong):
            made = path in after and path not in expected and after[path][0] == "directory"
            below = path + "/"
            # Directories that something else was put into stay; missing ones are made again.
            if made and any(other.startswith(below) for other in after):
                continue
            raise Wrong(f"{path!r} is {after.get(path)}, not {expected.get(path)}")

    # Acting

    def some_path(self, seen, kinds=("file", "link", "directory")):
        paths = sorted(path for path, one in seen.items() if one[0] in kinds)
        return self.m_rng.choice(paths) if paths else None

    def some_target(self, seen):
        directories = self.m_places + sorted(
            path for path, one in seen.items() if one[0] == "directory")
        return self.m_rng.choice(directories)

    def make(self, seen):
        path = os.path.join(self.some_target(seen), self.m_rng.choice(NAMES))
        if os.path.lexists(path):
            return
        if self.m_rng.random() < 0.15:
            os.symlink(self.m_rng.choice(NAMES), path)
            return
        if self.m_rng.random() < 0.3:
            os.mkdir(path, self.m_rng.choice((0o700, 0o755, 0o750)))
            path += "/" + self.m_rng.choice(NAMES)
        self.m_count += 1
        with open(path, "wb") as file:
            file.write(f"{self.m_count}".encode())
        os.chmod(path, self.m_rng.choice((0o600, 0o644, 0o755)))
        os.utime(path, ns=(0, self.m_rng.randrange(10**18)))
        if self.m_rng.random() < 0.3:
            try:
                os.setxattr(path, "user.mark", b"%d" % self.m_count)
            except OSError:
                pass  # this file system has none

    def words(self, seen):
        """A command, or nothing when there is nothing to do it to."""
        rng, one = self.m_rng, self.some_path(seen)
        verb = rng.choice(("copy", "copy", "move", "move", "rename", "mkdir", "trash", "trash",
                           "restore", "delete", "empty"))
        if verb == "mkdir":
            return verb, "--", f"{self.some_target(seen)}/{rng.choice(NAMES)}/{rng.choice(NAMES)}"
        if verb == "empty":
            return verb, "-f", "--", rng.choice(("*.log", "a*", f"{self.m_places[0]}/*"))
        if verb == "restore":
            return verb, "--keep-both", "--", rng.choice(("*.log", "*", "?"))
        if one is None:
            return None
        if verb == "delete":
            return verb, "-f", "--", one
        if verb == "trash":
            return verb, "--", *sorted({one, self.some_path(seen)})[:rng.randrange(1, 3)]
        if verb == "rename":
            return verb, "--", one, f"{os.path.dirname(one)}/{rng.choice(NAMES)}"
        policy = rng.choice(("overwrite", "skip", "keep-both", "newer"))
        return verb, "--on-conflict", policy, "--", one, self.some_target(seen) + "/"

    def step(self):
        for _ in range(self.m_rng.randrange(3)):
            self.make(self.tree())
        before = self.tree()
        known = {one["id"]: one for one in self.history()}
        can = [number for number in self.m_changes
               if number in known and not known[number]["undone"]]
        if can and self.m_rng.random() < 0.4:
            self.undo(self.m_rng.choice(can), before, known)
            return
        words = self.words(before)
        if words is None:
            return
        trashed = self.bytes_in_trash()
        self.run(*words)
        after = self.tree()
        if words[0] in ("delete", "empty"):
            there = {one[1] for one in after.values() if one[0] == "file"} | self.bytes_in_trash()
            was = {one[1] for one in before.values() if one[0] == "file"} | trashed
            self.m_gone |= was - there
        for one in self.history():
            if one["id"] not in known and one["kind"] not in ("delete", "empty"):
                changed = {path for path in before.keys() | after.keys()
                           if before.get(path) != after.get(path)}
                self.m_changes[one["id"]] = before, changed
        self.check_nothing_lost(after)

    def undo(self, number, before, known):
        code = self.run("undo", str(number))
        after = self.tree()
        if code != 0 and after != before:
            raise Wrong("an undo that was refused changed something")
        if code != 0 and known[number]["undoable"]:
            raise Wrong("the history says that it can be undone")
        if code == 0 and not known[number]["undoable"]:
            raise Wrong("the history says that it cannot be undone")
        if code == 0:
            self.check_undone(known[number], self.m_changes[number], before, after)
        self.check_nothing_lost(after)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--tavro", required=True, type=os.path.abspath)
    parser.add_argument("--walks", type=int, default=20)
    parser.add_argument("--seed", type=int, default=1, help="of the first walk")
    options = parser.parse_args()
    os.umask(0o022)
    undone = refused = commands = 0
    for seed in range(options.seed, options.seed + options.walks):
        world = World(options.tavro, seed)
        try:
            for _ in range(world.m_rng.randrange(5, 41)):
                world.step()
        except Wrong as wrong:
            print("\n".join(world.m_log[-40:]))
            sys.exit(f"walk {seed}: {wrong}")
        finally:
            commands += len(world.m_log)
            for line in world.m_log:
                undone += line.startswith("0: tavro 'undo'")
                refused += line.startswith("1: tavro 'undo'")
            world.remove()
    print(f"{options.walks} walks, {commands} commands, {undone} undone, {refused} undos refused")
    if not undone or not refused:
        sys.exit("the walks are too tame: nothing was undone, or nothing refused")


if __name__ == "__main__":
    main()
