"""What a person finds after a power cut, and whether it is what was promised.

A world is what the user sees: the tree of his files, and the items of the trash. A judgement holds
what was found against the world before the command and the world after it."""

import hashlib
import os
import re
import stat
from typing import NamedTuple
from urllib.parse import unquote_to_bytes

RULES = {
    "short": "a final name holds nothing, a part of a file, or bytes that are no file of the user",
    "wrong": "a final name holds neither the old nor the new file, or another kind of entry",
    "attributes": "a final name holds the right bytes with a mode or a time of neither",
    "stray": "a name that belongs neither to the old state nor to the new one",
    "part": "a directory stands under its final name without all of its files",
    "missing": "a name that was there before and is there after is not there in between",
    "lost": "bytes of the user are nowhere a person looks, and in nothing that the history names",
    "kept": "what was replaced is neither in its place nor in the trash",
    "record": "an item in the trash without its whole record",
    "done": "the command said done, and it is not",
    "unnamed": "neither the old state nor the new one, and the history says nothing of it",
    "leftover": "a hidden name that neither the history nor the doctor names, or that stays",
    "says": "history, list, doctor, undo or resume fails where it should not",
    "stuck": "undo or resume leads neither to the old state nor to the new one",
    "undo": "what was said done cannot be undone",
    "mount": "the file system cannot be mounted",
    "ran": "the command failed, or did something else, without any power cut",
}

HIDDEN = re.compile(r"(^|/)\.tavro-")
HIDDEN_NAME = re.compile(r"\.tavro-[^/]*")
HOME = "a/home"
HOME_TRASH = HOME + "/.local/share/Trash"
RECORD = re.compile(rb"\[Trash Info\]\nPath=([^\n]+)\n"
                    rb"DeletionDate=\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\n?\Z")


class Node(NamedTuple):
    Kind: str  # f(ile), d(irectory), l(ink)
    Content: str = ""  # the name of a file's content ("": none of the user's), a link's target
    Mode: int = 0
    Time: int = 0  # of a file, in nanoseconds
    Size: int = 0

    def content(self):
        return self.Kind, self.Content


class World(NamedTuple):
    User: dict  # path below the root → Node
    Trash: tuple = ()  # of Item


class Item(NamedTuple):
    Origin: str  # "" when the record is not whole
    Tree: dict  # path below the item → Node; the item itself is ""
    Name: str = ""


class Seen(NamedTuple):
    User: dict
    Trash: tuple
    Hidden: dict
    Orphans: tuple  # records without an item


class Case(NamedTuple):
    Before: World
    After: World
    Units: tuple  # names that appear in one piece or not at all
    Replaced: frozenset  # contents that give their names to others and go to the trash
    TrashFree: bool = False  # more may lie in the trash at the end than `After` has


class Fault(NamedTuple):
    Rule: str
    Text: str


def subtree(tree, top):
    return {path[len(top):].lstrip("/"): node for path, node in tree.items()
            if path == top or path.startswith(top + "/")}


def contents(tree):
    return {node.Content for node in tree.values() if node.Kind == "f"}


def world_contents(world):
    return contents(world.User).union(*(contents(item.Tree) for item in world.Trash))


def plain(tree):
    return {path: node.content() for path, node in tree.items()}


# Looking

class Eyes:
    """Reads what lies below the root. `known` maps the digest of each of the user's files to its
    name."""

    def __init__(self, root, known, images, user):
        self.m_root, self.m_known, self.m_images = root, known, images
        self.m_trashes = [HOME_TRASH] + [f"{image}/.Trash{tail}" for image in images
                                         for tail in (f"-{user}", f"/{user}")]

    def node(self, path):
        full = os.path.join(self.m_root, path)
        status = os.lstat(full)
        mode = stat.S_IMODE(status.st_mode)
        if stat.S_ISDIR(status.st_mode):
            return Node("d", "", mode)
        if stat.S_ISLNK(status.st_mode):
            return Node("l", os.readlink(full))
        if not stat.S_ISREG(status.st_mode):
            return Node("?")
        with open(full, "rb") as file:
            digest = hashlib.sha1(file.read()).digest()
        return Node("f", self.m_known.get(digest, ""), mode, status.st_mtime_ns, status.st_size)

    def all(self):
        """Every path below the root, parents before their children."""
        found, waiting = {}, list(self.m_images)
        while waiting:
            directory = waiting.pop()
            for name in os.listdir(os.path.join(self.m_root, directory)):
                path = f"{directory}/{name}"
                found[path] = self.node(path)
                if found[path].Kind == "d":
                    waiting.append(path)
        return found

    def record(self, trash, name):
        """The path that a whole record names, or "" when there is none."""
        try:
            with open(os.path.join(self.m_root, trash, "info", name + ".trashinfo"), "rb") as file:
                match = RECORD.match(file.read())
        except OSError:
            return ""
        if not match:
            return ""
        path = os.fsdecode(unquote_to_bytes(match[1]))
        if not path.startswith("/"):
            path = os.path.join(self.m_root, trash.split("/")[0], path)
        return os.path.relpath(path, self.m_root)

    def look(self):
        found = self.all()
        hidden = {path: node for path, node in found.items() if HIDDEN.search(path)}
        user, items, orphans = {}, [], []
        for path, node in found.items():
            trash = next((t for t in self.m_trashes if path.startswith(t + "/")), None)
            if path in hidden:
                continue
            if trash:
                room, _, name = path[len(trash) + 1:].partition("/")
                if room == "files" and name and "/" not in name:
                    tree = {below: part for below, part in subtree(found, path).items()
                            if not HIDDEN.search(below)}
                    items.append(Item(self.record(trash, name), tree, name))
                elif room == "info" and name.endswith(".trashinfo"):
                    if f"{trash}/files/{name[:-10]}" not in found:
                        orphans.append(name)
            elif not is_ignored(path):
                user[path] = node
        return Seen(user, tuple(items), hidden, tuple(orphans))


def is_ignored(path):
    """What the harness, the file system and the command keep for themselves."""
    parts = path.split("/")
    return parts[1] in ("neighbour", "lost+found") or parts[1].startswith(".Trash") or \
        (path + "/").startswith((HOME + "/.local/", HOME + "/.cache/"))


# Judging

def judge_names(case, seen):
    """Every final name of the user holds what was or what will be there."""
    for path, node in seen.User.items():
        allowed = [world.User[path] for world in (case.Before, case.After) if path in world.User]
        if node.Kind == "f" and not node.Content:
            yield Fault("short", f"{path} holds {node.Size} bytes that are no file of the user")
        elif not allowed:
            parent = os.path.dirname(path)
            if parent in case.Before.User or parent in case.After.User or parent not in seen.User:
                yield Fault("stray", path)
        elif node.content() not in [one.content() for one in allowed]:
            yield Fault("wrong", f"{path} is {node.Kind} {node.Content}")
        elif node.Kind == "f" and node not in allowed:
            yield Fault("attributes", f"{path} has mode {node.Mode:o}, time {node.Time}")
    for path in case.Before.User.keys() & case.After.User.keys() - seen.User.keys():
        yield Fault("missing", path)


def files(tree):
    return {below: node.Content for below, node in tree.items() if node.Kind == "f"}


def judge_units(case, seen):
    for unit in case.Units:
        if unit in seen.User:
            absent = files(subtree(case.After.User, unit)).keys() - subtree(seen.User, unit).keys()
            if absent:
                yield Fault("part", f"{unit} lacks {len(absent)} files, as {min(absent)}")


def trees_of(world, origin):
    trees = [item.Tree for item in world.Trash if item.Origin == origin]
    return trees + [subtree(world.User, origin)] if origin in world.User else trees


def is_rest(item, seen, expected, settled):
    """Whether an item is what was left of a source whose copy is whole elsewhere. Nobody compares
    it with that any more, so it has gone to the trash, and not away for good. Only once all is
    settled the whole may be back where the rest was; before, that is a source being trashed."""
    if item.Origin in seen.User and not settled:
        return False
    elsewhere = contents(seen.User).union(*(contents(one.Tree) for one in seen.Trash
                                            if one is not item))
    return any(contents(tree) <= elsewhere for tree in expected)


def judge_trash(case, seen, settled):
    """Every item has its record whole, and is what the record says."""
    for item in seen.Trash:
        if not item.Origin:
            yield Fault("record", f"{item.Name} in the trash has no whole record")
            continue
        expected = trees_of(case.Before, item.Origin) + trees_of(case.After, item.Origin)
        if not expected:
            yield Fault("record", f"the record of {item.Name} says {item.Origin}")
            continue
        for below, node in item.Tree.items():
            if node.Kind == "f" and not node.Content:
                yield Fault("short", f"{item.Name}/{below} in the trash holds {node.Size} bytes")
            elif not any(node.content() == tree[below].content()
                         for tree in expected if below in tree):
                yield Fault("wrong", f"{item.Name}/{below} in the trash is {node.content()}")
        leaving = item.Origin in [one.Origin for one in case.Before.Trash]
        if not leaving and not is_rest(item, seen, expected, settled) and \
                not any(files(tree).keys() <= item.Tree.keys() for tree in expected):
            yield Fault("part", f"{item.Name} in the trash has {len(files(item.Tree))} files")


def judge_bytes(case, seen, interrupted):
    """What is neither to be deleted nor to be created is somewhere."""
    there = contents(seen.User).union(*(contents(item.Tree) for item in seen.Trash))
    if interrupted:
        there |= contents(seen.Hidden)
    for content in sorted(world_contents(case.Before) & world_contents(case.After) - there):
        yield Fault("kept" if content in case.Replaced else "lost", content)


def same_items(items, others):
    return sorted((item.Origin, sorted(plain(item.Tree).items())) for item in items) == \
        sorted((item.Origin, sorted(plain(item.Tree).items())) for item in others)


def holds_items(items, wanted):
    found = [(item.Origin, plain(item.Tree)) for item in items]
    return all((item.Origin, plain(item.Tree)) in found for item in wanted)


def show(node):
    return f"{node.Kind} {node.Content} {node.Mode:o} {node.Time}".rstrip() if node else "nothing"


def describe_difference(tree, wanted):
    for path in sorted(tree.keys() | wanted.keys()):
        if tree.get(path) != wanted.get(path):
            return f"{path} is {show(tree.get(path))}, not {show(wanted.get(path))}"
    return ""


def differs(seen, world, trash_free):
    """In what the user's tree and the trash are not those of the world; "" when they are."""
    if seen.User != world.User:
        return describe_difference(seen.User, world.User)
    if not holds_items(seen.Trash, world.Trash):
        return "an item is not in the trash"
    if not trash_free and not same_items(seen.Trash, world.Trash):
        return "an item is still in the trash"
    return ""


def judge_done(case, seen):
    lacking = [item for item in case.After.Trash if not holds_items(seen.Trash, [item])]
    if lacking and all(contents(item.Tree) <= case.Replaced for item in lacking):
        return  # told under `kept`, unless only the names in the trash differ
    text = differs(seen, case.After, case.TrashFree)
    if text:
        yield Fault("done", text)
    for name in seen.Orphans:
        yield Fault("done", f"the record {name} has no item")


def judge(case, seen, done, interrupted=False, settled=False):
    """All faults of what was found. `done` says that the command had ended and said done, `settled`
    that undo, redo or resume have."""
    faults = [*judge_names(case, seen), *judge_units(case, seen), *judge_trash(case, seen, settled),
              *judge_bytes(case, seen, interrupted)]
    return faults + list(judge_done(case, seen)) if done else faults


def judge_told(case, seen, done, history, doctor):
    """What the commands that look say about a state between the old one and the new one."""
    interrupted = is_interrupted(history)
    if not done and not interrupted and seen.User not in (case.Before.User, case.After.User):
        nearest = min((case.Before.User, case.After.User),
                      key=lambda tree: len(tree.items() ^ seen.User.items()))
        yield Fault("unnamed", describe_difference(seen.User, nearest))
    for name in sorted({HIDDEN_NAME.search(path)[0] for path in seen.Hidden}):
        if not interrupted and name not in doctor:
            yield Fault("leftover", name)


def judge_settled(case, seen, verb, status, expected):
    """What undo, redo or resume has led to. `expected` is the world that it has to lead to, or None
    where the old one and the new one are both right."""
    if expected is None:
        if seen.User not in (case.Before.User, case.After.User):
            yield Fault("stuck", f"{verb}: {describe_difference(seen.User, case.Before.User)}")
    elif status != 0 or differs(seen, expected, True):
        rule = "undo" if expected is case.Before else "stuck"
        yield Fault(rule, f"{verb}: {differs(seen, expected, True)}")


def is_interrupted(history):
    return "interrupted" in history.lower()
