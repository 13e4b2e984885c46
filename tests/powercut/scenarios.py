"""The user's files, what is done with them, and what each deed must lead to.

Paths are below the root of a try: `a/home` is the home directory, `b` the top of the other file system."""

import functools
import hashlib
import os
import zlib
from typing import NamedTuple

from judge import Case, Item, Node, World, contents, subtree

HOME = "a/home"


def many(count=12):
    return [f"f{number:02}" for number in range(count)]


def layout():
    """Path → size of a file, "d" for a directory, or "→target" of a link."""
    tree = {}

    def add_tree(top, scale):
        tree.update({top: "d", f"{top}/one.txt": 3000 * scale, f"{top}/sub": "d",
                     f"{top}/sub/two.bin": 30000 * scale, f"{top}/sub/deep": "d",
                     f"{top}/sub/deep/three.txt": 500, f"{top}/empty": "d",
                     f"{top}/link": "→sub/deep/three.txt"})

    for name in ("docs", "shelf", "target", "pile", "merge", "odd", "many"):
        tree[f"{HOME}/{name}"] = "d"
    tree.update({f"{HOME}/docs/report.txt": 20000, f"{HOME}/docs/note.txt": 90,
                 f"{HOME}/docs/private.bin": 50000, f"{HOME}/target/keep.txt": 700,
                 f"{HOME}/target/report.txt": 9000, f"{HOME}/odd/report.txt": "d",
                 f"{HOME}/odd/report.txt/inside.txt": 4000})
    for name in many():
        tree[f"{HOME}/many/{name}"] = 150 + 1700 * int(name[1:])
        tree[f"{HOME}/pile/{name}"] = 2000
    add_tree(f"{HOME}/tree", 1)
    tree.update({f"{HOME}/merge/tree": "d", f"{HOME}/merge/tree/one.txt": 1100,
                 f"{HOME}/merge/tree/sub": "d", f"{HOME}/merge/tree/sub/other.txt": 1300})
    for name in ("b/shelf", "b/target", "b/merge"):
        tree[name] = "d"
    tree.update({"b/film.bin": 150000, "b/note.txt": 80, "b/target/report.txt": 8000,
                 "b/merge/tree": "d", "b/merge/tree/one.txt": 1200})
    add_tree("b/tree", 2)
    return tree


def bytes_of(path, size):
    """Contents that no other file has, not even in part."""
    return hashlib.shake_256(path.encode()).digest(size)


def specimens():
    """Commands that are right, or wrong in one known way, for the judge to be judged by."""
    h, trashed = HOME, "$HOME/.local/share/Trash"
    record = f"printf '[Trash Info]\\nPath=%s\\nDeletionDate=2026-01-02T03:04:05\\n' " \
             f"$HOME/docs/report.txt > {trashed}/info/r.trashinfo"
    rooms, gone = f"mkdir -p {trashed}/files {trashed}/info; sync -f .", trash(f"{h}/docs/report.txt")
    fresh = copy(f"{h}/docs/report.txt", f"{h}/fresh.txt")
    over = copy(f"{h}/docs/report.txt", f"{h}/target/report.txt", False)
    across = move(f"{h}/docs/report.txt", "b/shelf/report.txt")
    to_trash = f"mv docs/report.txt {trashed}/files/r"

    def write(source, target):  # cp and cat may share the blocks; these bytes are on their way
        return f"head -c 1G {source} > {target}; chmod --reference={source} {target}; touch -r {source} {target}"

    def row(name, expected, script, *deeds):
        return Scenario(name, Step(["-c", "set -e; " + script], list(deeds)), Undoable=False, Program="sh",
                        Expected=frozenset(expected.split()))

    yield row("careful-copy", "", "cp -a docs/report.txt .tavro-1; sync -f .; mv -nT .tavro-1 fresh.txt; sync -f .",
              fresh)
    yield row("unsynced-copy", "short done", "cp -a docs/report.txt fresh.txt", fresh)
    yield row("early-name", "short",
              f"{write('docs/report.txt', '.tavro-1')}; mv -nT .tavro-1 fresh.txt; sync -f .", fresh)
    yield row("late-mode", "attributes", "cat docs/report.txt > .tavro-1; sync -f .; mv -nT .tavro-1 fresh.txt; "
              "chmod --reference=docs/report.txt fresh.txt; touch -r docs/report.txt fresh.txt; sync -f .", fresh)
    yield row("other-bytes", "wrong", "cp -a docs/note.txt .tavro-1; cp -a docs/report.txt .tavro-2; sync -f .; "
              "mv -nT .tavro-1 fresh.txt; mv -T .tavro-2 fresh.txt; sync -f .", fresh)
    yield row("backup-name", "stray", "cp -a docs/report.txt .tavro-1; sync -f .; mv .tavro-1 fresh.txt~; "
              "mv -T fresh.txt~ fresh.txt; sync -f .", fresh)
    yield row("piecemeal-tree", "part", "cp -a tree shelf/; sync -f .", copy(f"{h}/tree", f"{h}/shelf/tree"))
    yield row("in-place", "short", f"{write('docs/report.txt', 'target/report.txt')}; sync -f .", over)
    yield row("remove-then-rename", "missing", "cp -a docs/report.txt target/.tavro-1; sync -f .; "
              "rm target/report.txt; mv target/.tavro-1 target/report.txt; sync -f .", over)
    yield row("unkept", "kept", "cp -a docs/report.txt target/.tavro-1; sync -f .; "
              "mv target/.tavro-1 target/report.txt; sync -f .",
              copy(f"{h}/docs/report.txt", f"{h}/target/report.txt"))
    yield row("careful-move-across", "", "cp -a docs/report.txt {b}/shelf/.tavro-1; sync -f {b}; "
              "mv {b}/shelf/.tavro-1 {b}/shelf/report.txt; sync -f {b}; rm docs/report.txt; sync -f .", across)
    yield row("hasty-move-across", "lost", f"{write('docs/report.txt', '{b}/shelf/.tavro-1')}; "
              "mv {b}/shelf/.tavro-1 {b}/shelf/report.txt; rm docs/report.txt; sync -f .; sync -f {b}", across)
    yield row("careful-trash", "", f"{rooms}; {record}; sync -f .; {to_trash}; sync -f .", gone)
    yield row("late-record", "record", f"{rooms}; {to_trash}; {record}; sync -f .", gone)
    yield row("unsynced-record", "record", f"{rooms}; {record}; {to_trash}; sync -f .", gone)
    yield row("unsynced-delete", "done", "rm docs/report.txt", delete(f"{h}/docs/report.txt"))
    yield row("failing", "ran", "exit 3", delete(f"{h}/docs/report.txt"))


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


@functools.lru_cache(None)
def digest_of(path, size):
    return hashlib.sha1(bytes_of(path, size)).digest()


def known_contents(tree):
    return {digest_of(path, what): path
            for path, what in tree.items() if isinstance(what, int)}


def world_of(tree):
    nodes = {HOME: Node("d", "", 0o755)}
    for path, what in tree.items():
        if what == "d":
            nodes[path] = Node("d", "", 0o755)
        elif isinstance(what, str):
            nodes[path] = Node("l", what[1:])
        else:
            nodes[path] = Node("f", path, *attributes_of(path), what)
    return World(nodes)


# What is done to a world. Each deed takes one and gives the next.

def without(tree, top):
    return {path: node for path, node in tree.items() if path != top and not path.startswith(top + "/")}


def put(tree, top, branch):
    return {**tree, **{f"{top}/{below}".rstrip("/"): node for below, node in branch.items()}}


def copy(source, target, keep=True):
    def deed(world):
        return placed(world, subtree(world.User, source), target, keep)
    return deed


def placed(world, branch, target, keep):
    """The branch stands at the target; a directory is merged into one, else what was there is in the
    trash, where it is kept."""
    there = world.User.get(target)
    if there and there.Kind == branch[""].Kind == "d":
        for name in sorted({below.split("/")[0] for below in branch if below}):
            world = placed(world, subtree(branch, name), f"{target}/{name}", keep)
        return world
    if there:
        old = Item(target, subtree(world.User, target))
        world = World(without(world.User, target), world.Trash + (old,) if keep else world.Trash)
    return World(put(world.User, target, branch), world.Trash)


def move(source, target, keep=True):
    def deed(world):
        after = copy(source, target, keep)(world)
        return World(without(after.User, source), after.Trash)
    return deed


def trash(*paths):
    def deed(world):
        for path in paths:
            item = Item(path, subtree(world.User, path))
            world = World(without(world.User, path), world.Trash + (item,))
        return world
    return deed


def restore(*origins, to=None):
    def deed(world):
        for origin in origins:
            item = next(one for one in world.Trash if one.Origin == origin)
            world = World(put(world.User, to or origin, item.Tree),
                          tuple(one for one in world.Trash if one is not item))
        return world
    return deed


def empty(world):
    return World(world.User)


def delete(*paths):
    def deed(world):
        for path in paths:
            world = World(without(world.User, path), world.Trash)
        return world
    return deed


def make(*paths):
    def deed(world):
        return World({**world.User, **{path: Node("d", "", 0o755) for path in paths}}, world.Trash)
    return deed


def back(world):
    """Marks a command that undoes the last one (or does it again); the world is known by then."""
    raise NotImplementedError


class Step(NamedTuple):
    Words: list  # of the command line, after the program's name
    Deeds: list
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


def home(*paths):
    return [f"{HOME}/{path}" for path in paths]


def each(deed, source, target, names):
    return [deed(f"{source}/{name}", f"{target}/{name}") for name in names]


OVER = "--on-conflict overwrite"
MANY = " ".join(f"many/{name}" for name in many())


def base_steps():
    h, b = HOME, "b"
    yield "copy-file", step("copy docs/report.txt fresh.txt", copy(f"{h}/docs/report.txt", f"{h}/fresh.txt"))
    yield "copy-many", step(f"copy {MANY} shelf/", *each(copy, f"{h}/many", f"{h}/shelf", many()))
    yield "copy-tree", step("copy tree shelf/", copy(f"{h}/tree", f"{h}/shelf/tree"))
    yield "copy-replace", step(f"copy {OVER} docs/report.txt target/",
                               copy(f"{h}/docs/report.txt", f"{h}/target/report.txt"))
    yield "copy-replace-many", step(f"copy {OVER} {MANY} pile/",
                                    *each(copy, f"{h}/many", f"{h}/pile", many()))
    yield "copy-replace-directory", step(f"copy {OVER} docs/report.txt odd/",
                                         copy(f"{h}/docs/report.txt", f"{h}/odd/report.txt"), answer="o\n")
    yield "copy-merge", step(f"copy {OVER} tree merge/", copy(f"{h}/tree", f"{h}/merge/tree"))
    yield "copy-keep-both", step("copy --on-conflict keep-both docs/report.txt target/",
                                 copy(f"{h}/docs/report.txt", f"{h}/target/report copy 1.txt"))
    yield "copy-tree-across", step("copy tree {b}/shelf/", copy(f"{h}/tree", "b/shelf/tree"))
    yield "move-file", step("move docs/report.txt shelf/",
                            move(f"{h}/docs/report.txt", f"{h}/shelf/report.txt"))
    yield "move-many", step(f"move {MANY} shelf/", *each(move, f"{h}/many", f"{h}/shelf", many()))
    yield "move-tree", step("move tree shelf/", move(f"{h}/tree", f"{h}/shelf/tree"))
    yield "move-replace", step(f"move {OVER} docs/report.txt target/",
                               move(f"{h}/docs/report.txt", f"{h}/target/report.txt"))
    yield "move-merge", step(f"move {OVER} tree merge/", move(f"{h}/tree", f"{h}/merge/tree"))
    yield "move-file-across", step("move docs/report.txt {b}/shelf/",
                                   move(f"{h}/docs/report.txt", "b/shelf/report.txt"))
    yield "move-many-across", step(f"move {MANY} {{b}}/shelf/", *each(move, f"{h}/many", "b/shelf", many()))
    yield "move-tree-across", step("move tree {b}/shelf/", move(f"{h}/tree", "b/shelf/tree"))
    yield "move-replace-across", step(f"move {OVER} docs/report.txt {{b}}/target/",
                                      move(f"{h}/docs/report.txt", "b/target/report.txt"))
    yield "move-merge-across", step(f"move {OVER} tree {{b}}/merge/", move(f"{h}/tree", "b/merge/tree"))
    yield "trash-file", step("trash docs/report.txt", trash(f"{h}/docs/report.txt"))
    yield "trash-many", step(f"trash {MANY}", trash(*home(*MANY.split())))
    yield "trash-tree", step("trash tree", trash(f"{h}/tree"))
    yield "trash-file-across", step("trash {b}/film.bin", trash("b/film.bin"))
    yield "trash-tree-across", step("trash {b}/tree", trash("b/tree"))
    yield "rename", step("rename docs/report.txt renamed.txt",
                         move(f"{h}/docs/report.txt", f"{h}/docs/renamed.txt"))
    yield "mkdir", step("mkdir new/inner/most", make(*home("new", "new/inner", "new/inner/most")))


def others():
    h = HOME
    trashed = step("trash docs/report.txt", trash(f"{h}/docs/report.txt"))
    trashed_many = step(f"trash {MANY}", trash(*home(*MANY.split())))
    trashed_tree = step("trash tree", trash(f"{h}/tree"))
    yield Scenario("copy-large", step("copy large.bin shelf/", copy(f"{h}/large.bin", f"{h}/shelf/large.bin")),
                   Extra={f"{h}/large.bin": 3_000_000})
    yield Scenario("rename-with-parents",
                   step("rename docs/report.txt new/inner/renamed.txt",
                        make(*home("docs/new", "docs/new/inner")),
                        move(f"{h}/docs/report.txt", f"{h}/docs/new/inner/renamed.txt")),
                   Units=(f"{h}/docs/new/inner/renamed.txt",))
    yield Scenario("restore-file", step("restore report.txt", restore(f"{h}/docs/report.txt")), (trashed,),
                   Undoable=False)
    yield Scenario("restore-many", step(f"restore {' '.join(many())}", restore(*home(*MANY.split()))),
                   (trashed_many,), Undoable=False)
    yield Scenario("restore-tree", step("restore tree", restore(f"{h}/tree")), (trashed_tree,),
                   Undoable=False)
    yield Scenario("restore-tree-across", step("restore tree", restore("b/tree")),
                   (step("trash {b}/tree", trash("b/tree")),), Undoable=False)
    yield Scenario("restore-keep-both",
                   step("restore --keep-both report.txt",
                        restore(f"{h}/docs/report.txt", to=f"{h}/docs/report copy 1.txt")),
                   (trashed, step("rename docs/note.txt report.txt",
                                  move(f"{h}/docs/note.txt", f"{h}/docs/report.txt"))), Undoable=False)
    yield Scenario("empty", step("empty -f", empty), (trashed, trashed_tree), Undoable=False)
    yield Scenario("delete-file", step("delete -f docs/report.txt", delete(f"{h}/docs/report.txt")),
                   Undoable=False)
    yield Scenario("delete-tree", step("delete -f tree docs", delete(f"{h}/tree", f"{h}/docs")),
                   Undoable=False)


TWICE = ("copy-file", "copy-tree", "copy-replace", "copy-replace-directory", "copy-merge", "move-file", "move-many", "move-tree",
         "move-replace", "move-merge", "move-file-across", "move-tree-across", "move-replace-across",
         "move-merge-across", "trash-file", "trash-many", "trash-tree", "trash-file-across",
         "trash-tree-across", "rename", "mkdir")


def all_scenarios():
    base = dict(base_steps())
    yield from (Scenario(name, one) for name, one in base.items())
    yield from others()
    for name in TWICE:
        yield Scenario(f"undo-{name}", step("undo", back), (base[name],))
    for name in TWICE:
        yield Scenario(f"redo-{name}", step("redo", back), (base[name], step("undo", back)))


def peers():
    """What people use instead, judged by those rules that apply."""
    h = HOME

    def row(name, line, *deeds):
        words = line.split()
        return Scenario(name, Step(words[1:], list(deeds)), Undoable=False, Program=words[0])

    yield row("cp-file", "cp -a docs/report.txt fresh.txt", copy(f"{h}/docs/report.txt", f"{h}/fresh.txt"))
    yield row("cp-tree", "cp -a tree shelf/", copy(f"{h}/tree", f"{h}/shelf/tree"))
    yield row("cp-replace", "cp -a docs/report.txt target/",
              copy(f"{h}/docs/report.txt", f"{h}/target/report.txt", False))
    yield row("mv-file", "mv docs/report.txt shelf/", move(f"{h}/docs/report.txt", f"{h}/shelf/report.txt"))
    yield row("mv-replace", "mv docs/report.txt target/",
              move(f"{h}/docs/report.txt", f"{h}/target/report.txt", False))
    yield row("mv-file-across", "mv docs/report.txt {b}/shelf/",
              move(f"{h}/docs/report.txt", "b/shelf/report.txt"))
    yield row("mv-tree-across", "mv tree {b}/shelf/", move(f"{h}/tree", "b/shelf/tree"))
    yield row("gio-trash-file", "gio trash docs/report.txt", trash(f"{h}/docs/report.txt"))
    yield row("gio-trash-tree", "gio trash tree", trash(f"{h}/tree"))
    yield row("gio-trash-across", "gio trash {b}/film.bin", trash("b/film.bin"))


def worlds_of(scenario):
    """The world before the scenario's command and the one after it."""
    worlds, at = [world_of({**layout(), **scenario.Extra})], 0
    for one in (*scenario.Earlier, scenario.Step):
        before = worlds[at]
        if one.Deeds == [back]:
            at += -1 if one.Words[0] == "undo" else 1
            continue
        world = before
        for deed in one.Deeds:
            world = deed(world)
        worlds, at = worlds[:at + 1] + [world], at + 1
    return before, worlds[at]


def case_of(scenario):
    before, after = worlds_of(scenario)
    # The undo of a copy moves what was copied to the trash, and its redo finds it there.
    names = scenario.Name.split("-")
    return Case(before, after, units_of(scenario, before, after),
                replaced(before, after) | replaced(after, before),
                names[0] in ("undo", "redo") and names[1] == "copy")


def replaced(before, after):
    """The contents whose names others have got, and which lie in the trash now."""
    went = [item for item in after.Trash if item not in before.Trash and item.Origin in after.User]
    return frozenset().union(*(contents(item.Tree) for item in went))


def units_of(scenario, before, after):
    if scenario.Units:
        return scenario.Units
    new = [path for path in after.User if path not in before.User]
    return tuple(path for path in new if os.path.dirname(path) not in new)
