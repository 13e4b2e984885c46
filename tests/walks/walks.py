#!/usr/bin/env python3
"""Walks at random through the command, and undoes in any order: each undo has to give back exactly
what its operation changed, and nothing else; one that is refused has to change nothing.

What an operation changed is learned by looking before and after it. Names, bytes, modes, owners,
extended attributes, access control lists and times count; of directories that stay where they are
the times do not. Nothing may be lost but what was deleted for good. As root it walks over three
file systems with a trash each, in a root directory of its own.
"""

import argparse
import fnmatch
import json
import os
import random
import shutil
import stat
import struct
import subprocess
import sys
import tempfile
import urllib.parse

NAMES = ("a", "b", "c d", "e\n", "-f", "[g]*", "h.log", "i.log")
PATTERNS = ("*.log", "a*", "?", "*")

# Arguments: own_root.bash, a new directory, the command, the directory of this file, the options.
OWN_ROOT = """
source "$1"
make_own_root "$2" "$(dirname "$3")"
mkdir "$2/walks"
mount --bind "$4" "$2/walks"
truncate -s 64M "$2/image"
{ mkfs.ext4 -q "$2/image" && mount -o loop "$2/image" "$2/two"; } >/dev/null 2>&1 ||
  echo 'No image can be mounted: all file systems are in memory'
enter_own_root "$2"
exec python3 -B /walks/walks.py --volumes --tavro /tavro/tavro "${@:5}"
"""


class Wrong(Exception):
    """The command did what it should not have done."""


def is_in(path, tops):
    return any(path == top or path.startswith(top + "/") for top in tops)


def access_list(rng):
    """An access control list as the kernel has it: one user more may read, or read and write."""
    entries = ((1, 6, -1), (2, rng.choice((4, 6)), 1000), (4, 5, -1), (16, 6, -1), (32, 0, -1))
    return struct.pack("<I", 2) + b"".join(struct.pack("<HHi", *entry) for entry in entries)


def attributes_of(path):
    try:
        return {name: os.getxattr(path, name, follow_symlinks=False)
                for name in os.listxattr(path, follow_symlinks=False)}
    except OSError:
        return {}


def entry(path):
    status = os.lstat(path)
    kind, times = stat.S_IFMT(status.st_mode), status.st_mtime_ns
    rest = (stat.S_IMODE(status.st_mode), status.st_uid, status.st_gid, attributes_of(path), times)
    if kind == stat.S_IFDIR:
        return "directory", None, *rest
    if kind == stat.S_IFLNK:
        return "link", os.readlink(path), *rest
    with open(path, "rb") as file:
        return "file", file.read(), *rest


def look(top, below="/"):
    """What is at a path and below it, and what is below it alone."""
    seen = {top: entry(top)} if below == "/" else {}
    if seen and seen[top][0] != "directory":
        return seen
    for above, directories, files in os.walk(top):
        for name in directories + files:
            path = os.path.join(above, name)
            seen[path] = entry(path)
    return seen


def remove(path):
    if os.path.isdir(path) and not os.path.islink(path):
        shutil.rmtree(path)
    elif os.path.lexists(path):
        os.remove(path)


def timeless(seen):
    return {path: one[:-1] if one[0] == "directory" else one for path, one in seen.items()}


def part(seen, top):
    return {path[len(top):]: one for path, one in seen.items() if is_in(path, [top])}


class World:
    """A home, and places, on different file systems where there are some; and what was done."""

    def __init__(self, tavro, seed, volumes):
        self.m_tavro = tavro
        self.m_rng = random.Random(seed)
        self.m_volumes = volumes
        self.m_environment = {"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8", "TAVRO_SYNC": "no",
                              "ASAN_OPTIONS": "detect_leaks=0"}
        tops = [tempfile.mkdtemp(prefix="tavro-walk-")]
        if volumes:
            tops += ["/one", "/two"]
        else:
            self.m_environment["TAVRO_TRASH"] = "home"
            if os.access("/dev/shm", os.W_OK):
                tops.append(tempfile.mkdtemp(prefix="tavro-walk-", dir="/dev/shm"))
        self.m_home = self.m_environment["HOME"] = f"{tops[0]}/home"
        self.m_places = [f"{top}/here" for top in tops]
        for path in (self.m_home, *self.m_places):
            os.mkdir(path)
        # Each trash, with what relative paths of its records begin at.
        self.m_trashes = {f"{self.m_home}/.local/share/Trash": "/"}
        if volumes:
            self.m_trashes.update({"/one/.Trash-0": "/one", "/two/.Trash-0": "/two"})
            if self.m_rng.random() < 0.5:
                os.mkdir("/two/.Trash")
                os.chmod("/two/.Trash", 0o1777)
                self.m_trashes["/two/.Trash/0"] = "/two"
        self.m_remains = tops if not volumes else [tops[0], *self.m_places[1:], "/two/.Trash",
                                                   "/one/.Trash-0", "/two/.Trash-0"]
        self.m_count = 0
        self.m_gone = set()  # bytes that were deleted for good
        self.m_restored = set()  # original paths of what was restored
        # Of operations that can be undone, by their numbers: all that was, and what was changed.
        self.m_changes = {}
        self.m_log = []

    def remove(self):
        for path in self.m_remains:
            remove(path)

    def run(self, *words, cwd=None):
        done = subprocess.run([self.m_tavro, *words], env=self.m_environment,
                              cwd=cwd or self.m_places[0], stdin=subprocess.DEVNULL,
                              capture_output=True, check=False)
        text = (done.stdout + done.stderr).decode(errors="replace")
        at = f" in {cwd!r}" if cwd else ""
        self.m_log.append(f"{done.returncode}: tavro {' '.join(map(repr, words))}{at}\n{text}")
        if done.returncode not in (0, 1):
            raise Wrong("it ended with neither 0 nor 1")
        return done.returncode, done.stdout

    # Looking

    def tree(self):
        seen = {}
        for place in self.m_places:
            seen.update(look(place, below="only"))
        return seen

    def items(self):
        """What lies in the trashes: by its path there where it was."""
        found = {}
        for trash, base in self.m_trashes.items():
            if not os.path.isdir(f"{trash}/files"):
                continue
            for name in os.listdir(f"{trash}/files"):
                try:
                    with open(f"{trash}/info/{name}.trashinfo", encoding="ascii") as record:
                        path = record.read().split("\n")[1].removeprefix("Path=")
                except OSError:
                    raise Wrong(f"an item without a record: {name!r} in {trash}") from None
                found[f"{trash}/files/{name}"] = os.path.join(base, urllib.parse.unquote(path))
        return found

    def bytes_in_trash(self):
        return {one[1] for item in self.items() for one in look(item).values() if one[0] == "file"}

    def all_bytes(self, seen):
        return {one[1] for one in seen.values() if one[0] == "file"} | self.bytes_in_trash()

    def history(self):
        done = subprocess.run([self.m_tavro, "history", "--json"], env=self.m_environment,
                              capture_output=True, check=True)
        return {one["id"]: one for one in json.loads(done.stdout)}

    # Checking

    def check_nothing_lost(self, seen):
        all_bytes = {f"{number}".encode() for number in range(1, self.m_count + 1)}
        if lost := all_bytes - self.all_bytes(seen) - self.m_gone:
            raise Wrong(f"lost: {lost}")

    @staticmethod
    def check_carried(before, source, target):
        """What has come to where nothing was is what it was, with the times of directories."""
        was, now = part(before, source), part(look(target), target)
        for path in sorted(was.keys() | now.keys()):
            if was.get(path) != now.get(path):
                raise Wrong(f"{target + path!r} came as {now.get(path)}, not {was.get(path)}")

    def check_undone(self, known, change, before, after):
        """After an undo: what its operation changed is as it was, all else as before the undo. What
        was moved, or copied, has gone with what is in it by now."""
        pairs = [(one["fromPath"], one["toPath"]) for one in known["entries"]
                 if one.get("fromPath") and one["toPath"]]
        bases = [to for _, to in pairs]
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
            stays = path in after and after[path][0] == "directory"
            made = stays and path not in expected
            below = path + "/"
            # Directories that something else was put into stay; missing ones are made again, and
            # one that was there already keeps its mode.
            if made and any(other.startswith(below) for other in after):
                continue
            if stays and not made and before.get(path) == after[path] and (
                    expected[path][0] == "directory"):
                continue
            raise Wrong(f"{path!r} is {after.get(path)}, not {expected.get(path)}")

    # Acting

    def some_path(self, seen, kinds=("file", "link", "directory")):
        paths = sorted(path for path, one in seen.items() if one[0] in kinds)
        return self.m_rng.choice(paths) if paths else None

    def some_directory(self, seen):
        return self.m_rng.choice(self.m_places + sorted(
            path for path, one in seen.items() if one[0] == "directory"))

    def make(self, seen):
        path = os.path.join(self.some_directory(seen), self.m_rng.choice(NAMES))
        if os.path.lexists(path):
            return
        if self.m_rng.random() < 0.15:
            os.symlink(self.m_rng.choice(NAMES), path)
            return
        if self.m_rng.random() < 0.3:
            os.mkdir(path, self.m_rng.choice((0o700, 0o755, 0o750)))
            self.mark(path, "system.posix_acl_default")
            path += "/" + self.m_rng.choice(NAMES)
        self.m_count += 1
        with open(path, "wb") as file:
            file.write(f"{self.m_count}".encode())
        os.chmod(path, self.m_rng.choice((0o600, 0o644, 0o755)))
        self.mark(path, "system.posix_acl_access")
        os.utime(path, ns=(0, self.m_rng.randrange(10**18)))

    def mark(self, path, access):
        """Gives an entry what not every entry has: another owner, attributes, lists."""
        rng = self.m_rng
        if rng.random() < 0.2 and os.geteuid() == 0:
            os.chown(path, rng.choice((0, 1000, 1001)), rng.choice((0, 1000)))
        for name, value in (("user.mark", b"%d" % self.m_count), (access, access_list(rng))):
            if rng.random() < 0.25:
                try:
                    os.setxattr(path, name, value)
                except OSError:
                    pass  # this file system has none

    def words(self, seen):
        """A command, or nothing when there is nothing to do it to."""
        rng, one = self.m_rng, self.some_path(seen)
        verb = rng.choice(("copy", "copy", "move", "move", "rename", "mkdir", "trash", "trash",
                           "delete"))
        if verb == "mkdir":
            below = f"{rng.choice(NAMES)}/{rng.choice(NAMES)}"
            return verb, "--", f"{self.some_directory(seen)}/{below}"
        if one is None:
            return None
        if verb == "delete":
            return verb, "-f", "--", one
        if verb == "trash":
            home = ("--home",) if self.m_volumes and rng.random() < 0.1 else ()
            return verb, *home, "--", *sorted({one, self.some_path(seen)})[:rng.randrange(1, 3)]
        if verb == "rename":
            return verb, "--", one, f"{os.path.dirname(one)}/{rng.choice(NAMES)}"
        policy = rng.choice(("overwrite", "overwrite", "skip", "keep-both", "newer"))
        return verb, "--on-conflict", policy, "--", one, self.some_directory(seen) + "/"

    def step(self):
        for _ in range(self.m_rng.randrange(3)):
            self.make(self.tree())
        before = self.tree()
        known = self.history()
        can = [number for number in self.m_changes
               if number in known and not known[number]["undone"]]
        if can and self.m_rng.random() < 0.4:
            self.undo(self.m_rng.choice((0, *can)), before, known)
        elif self.m_rng.random() < 0.08:
            self.meddle(before)
        elif self.m_rng.random() < 0.08:
            self.redo(before, known)
        elif self.m_rng.random() < 0.25:
            self.choose(before)
        elif words := self.words(before):
            self.act(words, before, known)
        self.check_nothing_lost(self.tree())

    def act(self, words, before, known):
        there = self.all_bytes(before)
        self.run(*words)
        after = self.tree()
        if words[0] == "delete":
            self.m_gone |= there - self.all_bytes(after)
        for number, one in self.history().items():
            if number in known or one["kind"] == "delete":
                continue
            self.learn(number, before, after)
            for moved in one["entries"]:
                source = moved.get("fromPath") or moved.get("originalPath")
                target = moved.get("toPath") or moved.get("trashPath")
                if source in before and target and target not in before:
                    self.check_carried(before, source, target)

    def learn(self, number, before, after):
        before, after = timeless(before), timeless(after)
        self.m_changes[number] = before, {path for path in before.keys() | after.keys()
                                          if before.get(path) != after.get(path)}

    def change(self, number, entries):
        """What an operation changed. What was restored since, and trashed again from the same path
        in the same second, comes back with what is in it by now."""
        then, changed = self.m_changes[number]
        for one in entries:
            path, item = one.get("originalPath"), one.get("trashPath")
            if path in self.m_restored and os.path.lexists(item):
                then = {other: was for other, was in then.items() if not is_in(other, [path])}
                then.update((path + below, now)
                            for below, now in part(timeless(look(item)), item).items())
        return then, changed | (then.keys() - self.m_changes[number][0].keys())

    def undo(self, number, before, known):
        """Undoes the operation of a number; of 0, the newest that can be undone."""
        words = (str(number),) if number else ("--skip",)
        number = number or max((one for one in known if known[one]["undoable"]), default=0)
        change = self.change(number, known[number]["entries"]) if number else None
        code, _ = self.run("undo", *words)
        after = self.tree()
        if code != 0 and timeless(after) != timeless(before):
            raise Wrong("an undo that was refused changed something")
        if (code == 0) != (number != 0 and known[number]["undoable"]):
            raise Wrong("the history says otherwise")
        if code == 0:
            self.check_undone(known[number], change, timeless(before), timeless(after))
            if self.m_rng.random() < 0.2:
                self.redo_at_once(timeless(before), timeless(after))

    def meddle(self, before):
        """Another program renames an entry, or empties a trash."""
        there, one = self.all_bytes(before), self.some_path(before)
        if one and self.m_rng.random() < 0.6:
            target = f"{os.path.dirname(one)}/{self.m_rng.choice(NAMES)}"
            if not os.path.lexists(target):
                os.rename(one, target)
                self.m_log.append(f"Somebody renames {one!r} to {target!r}\n")
            return
        trash = self.m_rng.choice(sorted(self.m_trashes))
        for path in [item for item in self.items() if is_in(item, [trash])]:
            remove(path)
            os.remove(f"{trash}/info/{os.path.basename(path)}.trashinfo")
        self.m_log.append(f"Somebody empties {trash!r}\n")
        self.m_gone |= there - self.all_bytes(before)

    def redo_at_once(self, before, undone):
        """Everything is as before the undo; but directories that this had to make stay."""
        code, _ = self.run("redo")
        after = timeless(self.tree())
        made = {path for path in undone.keys() - before.keys() if undone[path][0] == "directory"}
        wrong = {path for path in before.keys() | after.keys()
                 if before.get(path) != after.get(path)} - made
        if code != 0 or wrong:
            raise Wrong(f"a redo at once did not bring back what the undo changed: {wrong}")

    def redo(self, before, known):
        code, _ = self.run("redo")
        after = self.tree()
        if code != 0 and timeless(after) != timeless(before):
            raise Wrong("a redo that was refused changed something")
        for number, one in self.history().items():
            if number in self.m_changes and known[number]["undone"] and not one["undone"]:
                self.learn(number, before, after)

    def choose(self, before):
        """Lists, restores or empties what a pattern or a limit means, and nothing else."""
        rng, cwd = self.m_rng, self.some_directory(before)
        place = rng.choice(self.m_places)
        pattern = rng.choice(PATTERNS)
        words, is_meant = rng.choice((
            ([pattern], lambda item, path: any(fnmatch.fnmatchcase(os.path.basename(one), pattern)
                                               for one in (item, path))),
            ([f"{place}/*"], lambda item, path: os.path.dirname(path) == place),
            (["--here"], lambda item, path: path.startswith(cwd + "/")),
            (["--volume", place, "*"],
             lambda item, path: os.lstat(item).st_dev == os.stat(place).st_dev)))
        items = self.items()
        meant = {item for item, path in items.items() if is_meant(item, path)}
        _, listed = self.run("list", "--json", *words, cwd=cwd)
        if {one["trashPath"] for one in json.loads(listed)} != meant:
            raise Wrong(f"it did not list {meant}")
        verb = rng.choice(("restore", "restore", "empty"))
        to = self.some_directory(before) if verb == "restore" and rng.random() < 0.3 else None
        there = self.all_bytes(before)
        self.run(verb, *(["-f"] if verb == "empty" else ["--keep-both"]),
                 *(["--to", to] if to else []), *words, cwd=cwd)
        left, after = self.items().keys(), self.tree()
        if not items.keys() - left <= meant or verb == "empty" and left != items.keys() - meant:
            raise Wrong(f"it took {items.keys() - left} from the trash, not of {meant}")
        if verb == "empty":
            self.m_gone |= there - self.all_bytes(after)
        else:
            self.m_restored |= {items[item] for item in items.keys() - left}
        changed = {path for path, one in timeless(before).items()
                   if timeless({path: after[path]} if path in after else {}).get(path) != one}
        new = after.keys() - before
        if changed or verb == "empty" and new:
            raise Wrong(f"it changed {changed or new}")
        if to and len({path for path in new if os.path.dirname(path) == to}) != len(
                items.keys() - left):
            raise Wrong(f"it did not restore to {to!r}")


def walk_in_own_root(tavro, options):
    """As root, where file systems can be mounted: does all of it there, and ends."""
    here = os.path.dirname(os.path.abspath(__file__))
    if os.geteuid() != 0:
        return "only root can mount file systems"
    if subprocess.run(["unshare", "-m", "true"], capture_output=True, check=False).returncode:
        return "nothing can be mounted here"
    with tempfile.TemporaryDirectory(prefix="tavro-walks-") as root:
        done = subprocess.run(["unshare", "-m", "--propagation", "private", "bash", "-euc",
                               OWN_ROOT, "bash", f"{here}/../cli/own_root.bash", root, tavro, here,
                               *options], check=False)
    sys.exit(done.returncode)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--tavro", required=True, type=os.path.abspath)
    parser.add_argument("--walks", type=int, default=20)
    parser.add_argument("--seed", type=int, default=1, help="of the first walk")
    parser.add_argument("--home", action="store_true", help="with the home trash alone")
    parser.add_argument("--volumes", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    os.umask(0o022)
    if not options.volumes and not options.home:
        why = walk_in_own_root(options.tavro,
                               [f"--walks={options.walks}", f"--seed={options.seed}"])
        print(f"With the home trash alone: {why}")
    undone = refused = commands = 0
    for seed in range(options.seed, options.seed + options.walks):
        world = World(options.tavro, seed, options.volumes)
        try:
            for _ in range(world.m_rng.randrange(5, 41)):
                world.step()
            if world.run("doctor")[0] != 0:
                raise Wrong("the trash is not in order")
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
    if options.walks > 9 and not (undone and refused):
        sys.exit("the walks are too tame: nothing was undone, or nothing refused")


if __name__ == "__main__":
    main()
