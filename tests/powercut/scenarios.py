"""The user's files, what is done with them, and what each deed must lead to.

Paths are below the root of a try: `a/home` is the home directory, `b` the top of the other file
system. Those of deeds are below the home directory unless they begin with one of these letters."""

import functools
import hashlib
import os
import zlib
from typing import NamedTuple

from judge import HOME, Case, Item, Node, World, contents, subtree

# The user's files

NAMES = [f"f{number:02}" for number in range(12)]


def layout():
    """Path → size of a file, "d" for a directory, or "→target" of a link."""
    tree = {}

    def add(top, **entries):
        tree.update({top: "d", **{f"{top}/{name}": what for name, what in entries.items()}})

    def add_tree(top, scale):
        add(top, empty="d", link="→sub/deep/three.txt", **{"one.txt": 3000 * scale})
        add(f"{top}/sub", **{"two.bin": 30000 * scale})
        add(f"{top}/sub/deep", **{"three.txt": 500})

    add(at("docs"), **{"report.txt": 20000, "note.txt": 90, "private.bin": 50000})
    add(at("shelf"))
    add(at("target"), **{"keep.txt": 700, "report.txt": 9000})
    add(at("odd"))
    add(at("odd/report.txt"), **{"inside.txt": 4000})
    add(at("many"), **{name: 150 + 1700 * number for number, name in enumerate(NAMES)})
    add(at("pile"), **{name: 2000 for name in NAMES})
    add_tree(at("tree"), 1)
    add(at("merge"))
    add(at("merge/tree"), **{"one.txt": 1100})
    add(at("merge/tree/sub"), **{"other.txt": 1300})
    add("b/shelf")
    add("b/target", **{"report.txt": 8000})
    add("b/merge")
    add("b/merge/tree", **{"one.txt": 1200})
    add_tree("b/tree", 2)
    tree.update({"b/film.bin": 150000, "b/note.txt": 80})
    return tree


def at(path):
    return path if path[:2] in ("a/", "b/") else f"{HOME}/{path}"


def bytes_of(path, size):
    """Contents that no other file has, not even in part."""
    return hashlib.shake_256(path.encode()).digest(size)


@functools.lru_cache(None)
def digest_of(path, size):
    return hashlib.sha1(bytes_of(path, size)).digest()


def known_contents(tree):
    return {digest_of(path, what): path for path, what in tree.items() if isinstance(what, int)}


def attributes_of(path):
    number = zlib.crc32(path.encode())
    return (0o644, 0o640, 0o600)[number % 3], 10**18 + number * 10**6 + 123456


def make_files(root, user, tree):
    for path, what in sorted(tree.items()):
        full = os.path.join(root, path)
        if what == "d":
            os.mkdir(full)
            os.chmod(full, 0o755)
        elif isinstance(what, str):
            os.symlink(what[1:], full)
        else:
            with open(full, "wb") as file:
                file.write(bytes_of(path, what))
            mode, time = attributes_of(path)
            os.chmod(full, mode)
            os.utime(full, ns=(time, time))
        os.chown(full, user, user, follow_symlinks=False)


DIRECTORY = Node("d", "", 0o755)


def world_of(tree):
    nodes = {HOME: DIRECTORY}
    for path, what in tree.items():
        if what == "d":
            nodes[path] = DIRECTORY
        elif isinstance(what, str):
            nodes[path] = Node("l", what[1:])
        else:
            nodes[path] = Node("f", path, *attributes_of(path), what)
    return World(nodes)


# What is done to a world. Each deed takes one and gives the next.

def without(tree, top):
    return {path: node for path, node in tree.items() if not (path + "/").startswith(top + "/")}


def put(tree, top, branch):
    return {**tree, **{f"{top}/{below}".rstrip("/"): node for below, node in branch.items()}}


def placed(world, branch, target, keep):
    """The branch stands at the target; a directory is merged into one, else what was there lies in
    the trash, where it is kept."""
    there = world.User.get(target)
    if there and there.Kind == branch[""].Kind == "d":
        for name in sorted({below.split("/")[0] for below in branch if below}):
            world = placed(world, subtree(branch, name), f"{target}/{name}", keep)
        return world
    if there:
        old = Item(target, subtree(world.User, target))
        world = World(without(world.User, target), world.Trash + (old,) if keep else world.Trash)
    return World(put(world.User, target, branch), world.Trash)


def copy(source, target, keep=True):
    return lambda world: placed(world, subtree(world.User, at(source)), at(target), keep)


def move(source, target, keep=True):
    def deed(world):
        after = copy(source, target, keep)(world)
        return World(without(after.User, at(source)), after.Trash)
    return deed


def trash(*paths):
    def deed(world):
        for path in map(at, paths):
            item = Item(path, subtree(world.User, path))
            world = World(without(world.User, path), world.Trash + (item,))
        return world
    return deed


def restore(*origins, to=None):
    def deed(world):
        for origin in map(at, origins):
            item = next(one for one in world.Trash if one.Origin == origin)
            world = World(put(world.User, at(to) if to else origin, item.Tree),
                          tuple(one for one in world.Trash if one is not item))
        return world
    return deed


def empty(world):
    return World(world.User)


def delete(*paths):
    def deed(world):
        for path in map(at, paths):
            world = World(without(world.User, path), world.Trash)
        return world
    return deed


def make(*paths):
    new = {at(path): DIRECTORY for path in paths}
    return lambda world: World({**world.User, **new}, world.Trash)


def each(deed, source, target):
    return [deed(f"{source}/{name}", f"{target}/{name}") for name in NAMES]


# Scenarios

class Step(NamedTuple):
    Words: list  # of the command line, after the program's name
    Deeds: list  # none: the last step is undone, or done again
    Answer: str = ""  # typed on a terminal, where the command asks


class Scenario(NamedTuple):
    Name: str
    Step: Step
    Earlier: tuple = ()  # steps done before, without any power cut
    Units: tuple = ()  # names that appear in one piece; those at the top of what is new by default
    Undoable: bool = True
    Extra: dict = {}  # more files
    Program: str = "tavro"
    Expected: frozenset = frozenset()  # of a specimen: what the judge has to find

    def images(self):
        words = [word for step in (*self.Earlier, self.Step) for word in step.Words]
        return ("a", "b") if any("{b}" in word for word in words) else ("a",)


def step(line, *deeds, answer=""):
    return Step(line.split(), list(deeds), answer)


OVER = "--on-conflict overwrite"
MANY = [f"many/{name}" for name in NAMES]
ALL = " ".join(MANY)
REPORT = "docs/report.txt"

# These are tried themselves, and so are their undo and redo.
TWICE = {
    "copy-file": step(f"copy {REPORT} fresh.txt", copy(REPORT, "fresh.txt")),
    "copy-tree": step("copy tree shelf/", copy("tree", "shelf/tree")),
    "copy-replace": step(f"copy {OVER} {REPORT} target/", copy(REPORT, "target/report.txt")),
    "copy-replace-directory": step(f"copy {OVER} {REPORT} odd/", copy(REPORT, "odd/report.txt"),
                                   answer="o\n"),
    "copy-merge": step(f"copy {OVER} tree merge/", copy("tree", "merge/tree")),
    "move-file": step(f"move {REPORT} shelf/", move(REPORT, "shelf/report.txt")),
    "move-many": step(f"move {ALL} shelf/", *each(move, "many", "shelf")),
    "move-tree": step("move tree shelf/", move("tree", "shelf/tree")),
    "move-replace": step(f"move {OVER} {REPORT} target/", move(REPORT, "target/report.txt")),
    "move-merge": step(f"move {OVER} tree merge/", move("tree", "merge/tree")),
    "move-file-across": step(f"move {REPORT} {{b}}/shelf/", move(REPORT, "b/shelf/report.txt")),
    "move-tree-across": step("move tree {b}/shelf/", move("tree", "b/shelf/tree")),
    "move-replace-across": step(f"move {OVER} {REPORT} {{b}}/target/",
                                move(REPORT, "b/target/report.txt")),
    "move-merge-across": step(f"move {OVER} tree {{b}}/merge/", move("tree", "b/merge/tree")),
    "trash-file": step(f"trash {REPORT}", trash(REPORT)),
    "trash-many": step(f"trash {ALL}", trash(*MANY)),
    "trash-tree": step("trash tree", trash("tree")),
    "trash-file-across": step("trash {b}/film.bin", trash("b/film.bin")),
    "trash-tree-across": step("trash {b}/tree", trash("b/tree")),
    "rename": step(f"rename {REPORT} renamed.txt", move(REPORT, "docs/renamed.txt")),
    "mkdir": step("mkdir new/inner/most", make("new", "new/inner", "new/inner/most")),
}

ONCE = {
    "copy-many": step(f"copy {ALL} shelf/", *each(copy, "many", "shelf")),
    "copy-replace-many": step(f"copy {OVER} {ALL} pile/", *each(copy, "many", "pile")),
    "copy-keep-both": step(f"copy --on-conflict keep-both {REPORT} target/",
                           copy(REPORT, "target/report copy 1.txt")),
    "copy-tree-across": step("copy tree {b}/shelf/", copy("tree", "b/shelf/tree")),
    "move-many-across": step(f"move {ALL} {{b}}/shelf/", *each(move, "many", "b/shelf")),
}

FINAL = {  # and what is done before
    "restore-file": (step("restore report.txt", restore(REPORT)), TWICE["trash-file"]),
    "restore-many": (step(f"restore {' '.join(NAMES)}", restore(*MANY)), TWICE["trash-many"]),
    "restore-tree": (step("restore tree", restore("tree")), TWICE["trash-tree"]),
    "restore-tree-across": (step("restore tree", restore("b/tree")), TWICE["trash-tree-across"]),
    "restore-keep-both": (step("restore --keep-both report.txt",
                               restore(REPORT, to="docs/report copy 1.txt")), TWICE["trash-file"],
                          step("rename docs/note.txt report.txt", move("docs/note.txt", REPORT))),
    "empty": (step("empty -f", empty), TWICE["trash-file"], TWICE["trash-tree"]),
    "delete-file": (step(f"delete -f {REPORT}", delete(REPORT)),),
    "delete-tree": (step("delete -f tree docs", delete("tree", "docs")),),
}


# What was merged entry by entry comes back so, and the directories that meet it are no pieces.
UNITS = {
    "undo-move-merge": ("a/home/tree/empty", "a/home/tree/sub/deep"),
    "undo-move-merge-across": ("a/home/tree/empty", "a/home/tree/sub"),
}


def all_scenarios():
    for name, one in {**TWICE, **ONCE}.items():
        yield Scenario(name, one)
    yield Scenario("copy-large", step("copy large.bin shelf/",
                                      copy("large.bin", "shelf/large.bin")),
                   Extra={at("large.bin"): 3_000_000})
    renamed = "docs/new/inner/renamed.txt"
    yield Scenario("rename-with-parents", step(f"rename {REPORT} new/inner/renamed.txt",
                                               make("docs/new", "docs/new/inner"),
                                               move(REPORT, renamed)), Units=(at(renamed),))
    for name, (last, *earlier) in FINAL.items():
        yield Scenario(name, last, tuple(earlier), Undoable=False)
    for name, one in TWICE.items():
        yield Scenario(f"undo-{name}", step("undo"), (one,), UNITS.get(f"undo-{name}", ()))
        yield Scenario(f"redo-{name}", step("redo"), (one, step("undo")))


def peers():
    """What people use instead, judged by those rules that apply."""
    for name, line, deed in (
            ("cp-file", f"cp -a {REPORT} fresh.txt", copy(REPORT, "fresh.txt")),
            ("cp-tree", "cp -a tree shelf/", copy("tree", "shelf/tree")),
            ("cp-replace", f"cp -a {REPORT} target/", copy(REPORT, "target/report.txt", False)),
            ("mv-file", f"mv {REPORT} shelf/", move(REPORT, "shelf/report.txt")),
            ("mv-replace", f"mv {REPORT} target/", move(REPORT, "target/report.txt", False)),
            ("mv-file-across", f"mv {REPORT} {{b}}/shelf/", move(REPORT, "b/shelf/report.txt")),
            ("mv-tree-across", "mv tree {b}/shelf/", move("tree", "b/shelf/tree")),
            ("gio-trash-file", f"gio trash {REPORT}", trash(REPORT)),
            ("gio-trash-tree", "gio trash tree", trash("tree")),
            ("gio-trash-across", "gio trash {b}/film.bin", trash("b/film.bin"))):
        program, *words = line.split()
        yield Scenario(name, Step(words, [deed]), Undoable=False, Program=program)


def specimens():
    """Commands that are right, or wrong in one known way, for the judge to be judged by."""
    bin_ = "$HOME/.local/share/Trash"
    rooms = f"mkdir -p {bin_}/files {bin_}/info; sync -f ."
    record = "printf '[Trash Info]\\nPath=%s\\nDeletionDate=2026-01-02T03:04:05\\n' " \
             f"$HOME/{REPORT} > {bin_}/info/r.trashinfo"
    binned, done = f"mv {REPORT} {bin_}/files/r", "sync -f ."
    fresh, over = copy(REPORT, "fresh.txt"), copy(REPORT, "target/report.txt", False)
    across, gone = move(REPORT, "b/shelf/report.txt"), trash(REPORT)
    staged = f"cp -a {REPORT} .tavro-1; {done}"

    def write(target):  # cp and cat may share the blocks; these bytes are on their way
        return f"head -c 1G {REPORT} > {target}; {attributes(target)}"

    def attributes(target):
        return f"chmod --reference={REPORT} {target}; touch -r {REPORT} {target}"

    for name, expected, deed, *script in (
            ("careful-copy", "", fresh, staged, "mv -nT .tavro-1 fresh.txt", done),
            ("unsynced-copy", "done", fresh, write("fresh.txt")),
            ("early-name", "short", fresh, write(".tavro-1"), "mv -nT .tavro-1 fresh.txt", done),
            ("late-mode", "attributes", fresh, f"cat {REPORT} > .tavro-1", done,
             "mv -nT .tavro-1 fresh.txt", attributes("fresh.txt"), done),
            ("other-bytes", "wrong", fresh, staged, "cp -a docs/note.txt .tavro-2", done,
             "mv -nT .tavro-2 fresh.txt", "mv -T .tavro-1 fresh.txt", done),
            ("backup-name", "stray", fresh, staged, "mv .tavro-1 fresh.txt~",
             "mv -T fresh.txt~ fresh.txt", done),
            ("piecemeal-tree", "part", copy("tree", "shelf/tree"), "cp -a tree shelf/", done),
            ("in-place", "short", over, write("target/report.txt"), done),
            ("remove-then-rename", "missing", over, staged, "rm target/report.txt",
             "mv .tavro-1 target/report.txt", done),
            ("unkept", "kept", copy(REPORT, "target/report.txt"), staged,
             "mv .tavro-1 target/report.txt", done),
            ("careful-move-across", "", across, f"cp -a {REPORT} {{b}}/shelf/.tavro-1",
             "sync -f {b}", "mv {b}/shelf/.tavro-1 {b}/shelf/report.txt", "sync -f {b}",
             f"rm {REPORT}", done),
            ("hasty-move-across", "lost", across, write("{b}/shelf/.tavro-1"),
             "mv {b}/shelf/.tavro-1 {b}/shelf/report.txt", f"rm {REPORT}", done, "sync -f {b}"),
            ("careful-trash", "", gone, rooms, record, done, binned, done),
            ("late-record", "record", gone, rooms, binned, record, done),
            ("unsynced-record", "record", gone, rooms, record, binned, done),
            ("unsynced-delete", "done", delete(REPORT), f"rm {REPORT}"),
            ("failing", "ran", delete(REPORT), "exit 3")):
        yield Scenario(name, Step(["-c", "; ".join(("set -e", *script))], [deed]), Undoable=False,
                       Program="sh", Expected=frozenset(expected.split()))


# What each must lead to

def worlds_of(scenario):
    """The world before the scenario's command and the one after it."""
    worlds, now = [world_of({**layout(), **scenario.Extra})], 0
    for one in (*scenario.Earlier, scenario.Step):
        before = worlds[now]
        if not one.Deeds:
            now += -1 if one.Words[0] == "undo" else 1
            continue
        world = before
        for deed in one.Deeds:
            world = deed(world)
        worlds, now = worlds[:now + 1] + [world], now + 1
    return before, worlds[now]


def case_of(scenario):
    before, after = worlds_of(scenario)
    if scenario.images() == ("a",):  # the other file system is not mounted then
        before, after = (world._replace(User={path: node for path, node in world.User.items()
                                              if path.startswith("a/")})
                         for world in (before, after))
    # The undo of a copy moves what was copied to the trash, and its redo finds it there.
    free = scenario.Name.startswith(("undo-copy", "redo-copy"))
    return Case(before, after, units_of(scenario, before, after),
                replaced(before, after) | replaced(after, before), free)


def replaced(before, after):
    """The contents whose names others have got, and which lie in the trash now."""
    went = [item for item in after.Trash if item not in before.Trash and item.Origin in after.User]
    return frozenset().union(*(contents(item.Tree) for item in went))


def units_of(scenario, before, after):
    if scenario.Units:
        return scenario.Units
    new = [path for path in after.User if path not in before.User]
    return tuple(path for path in new if os.path.dirname(path) not in new)
