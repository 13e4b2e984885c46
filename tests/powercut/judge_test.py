#!/usr/bin/env python3
"""The judge is judged: each rule is broken once, and states are what a power cut allows."""

import os
import random
import struct
import tempfile
import unittest

import disk
import judge
import scenarios
from judge import Case, Item, Node, Seen, World

DOCS = "a/home/docs"


def file(content, mode=0o644, time=7):
    return Node("f", content, mode, time, 10)


def directory():
    return Node("d", "", 0o755)


TREE = {DOCS: directory(), f"{DOCS}/old": file("old"), f"{DOCS}/over": file("over"),
        f"{DOCS}/tree": directory(), f"{DOCS}/tree/one": file("one"),
        f"{DOCS}/tree/two": file("two")}


def case_of(deed, **more):
    before, after = World(TREE), deed(World(TREE))
    new = [path for path in after.User if path not in TREE]
    return Case(before, after, tuple(path for path in new if os.path.dirname(path) not in new),
                scenarios.replaced(before, after), **more)


COPY = case_of(scenarios.copy(f"{DOCS}/tree", f"{DOCS}/new"))
REPLACE = case_of(scenarios.copy(f"{DOCS}/old", f"{DOCS}/over"))
TRASH = case_of(scenarios.trash(f"{DOCS}/old"))
DELETE = case_of(scenarios.delete(f"{DOCS}/old"))


def seen_of(world, trash=None, hidden=(), orphans=(), without=(), **changed):
    user = {path: node for path, node in world.User.items() if path not in without}
    for name, node in changed.items():
        user[f"{DOCS}/{name}"] = node
    return Seen(user, world.Trash if trash is None else tuple(trash), dict(hidden), tuple(orphans))


class EachRuleIsSeen(unittest.TestCase):
    def found(self, faults):
        return sorted({fault.Rule for fault in faults})

    def says(self, rules, case, seen, done=False, interrupted=False):
        self.assertEqual(rules.split(), self.found(judge.judge(case, seen, done, interrupted)))

    def test_old_and_new_states_hold(self):
        for case in (COPY, REPLACE, TRASH, DELETE):
            self.says("", case, seen_of(case.Before))
            self.says("", case, seen_of(case.After), done=True)

    def test_an_old_state_after_the_command_said_done(self):
        for case in (COPY, TRASH, DELETE):
            self.says("done", case, seen_of(case.Before), done=True)

    def test_an_empty_file_under_a_final_name(self):
        self.says("short", COPY, seen_of(COPY.After, **{"new/one": file("")}))
        self.says("short", COPY, seen_of(COPY.After, **{"unknown": file("")}))

    def test_another_file_under_a_final_name(self):
        self.says("wrong", COPY, seen_of(COPY.After, **{"new/one": file("two")}))
        self.says("wrong", COPY, seen_of(COPY.After, **{"new/one": directory()}))

    def test_the_mode_or_the_time_of_neither_state(self):
        self.says("attributes", COPY, seen_of(COPY.After, **{"new/one": file("one", 0o600)}))
        self.says("attributes", COPY, seen_of(COPY.After, **{"new/one": file("one", time=8)}))

    def test_a_name_that_nobody_asked_for(self):
        self.says("stray", COPY, seen_of(COPY.Before, **{"old~": file("old")}))

    def test_a_tree_that_lacks_a_file(self):
        self.says("part", COPY, seen_of(COPY.After, without=[f"{DOCS}/new/two"]))
        self.says("done part", COPY, seen_of(COPY.After, without=[f"{DOCS}/new/two"]), done=True)

    def test_a_name_that_is_missing_in_between(self):
        self.says("kept missing", REPLACE, seen_of(REPLACE.Before, without=[f"{DOCS}/over"]))
        held = [Item(f"{DOCS}/over", {"": file("over")})]
        self.says("missing", REPLACE, seen_of(REPLACE.Before, trash=held, without=[f"{DOCS}/over"]))

    def test_what_was_replaced_is_gone(self):
        self.says("kept", REPLACE, seen_of(REPLACE.After, trash=[]))
        self.says("kept", REPLACE, seen_of(REPLACE.After, trash=[]), done=True)

    def test_bytes_that_are_nowhere(self):
        self.says("lost", TRASH, seen_of(TRASH.After, trash=[]))
        self.says("lost missing", COPY, seen_of(COPY.Before, without=[f"{DOCS}/old"]))

    def test_bytes_under_a_hidden_name_count_when_the_history_names_the_operation(self):
        hidden = {f"{DOCS}/.tavro-abc": file("old")}
        self.says("lost", TRASH, seen_of(TRASH.After, trash=[], hidden=hidden))
        self.says("", TRASH, seen_of(TRASH.After, trash=[], hidden=hidden), interrupted=True)

    def test_an_item_without_its_record_or_with_another_one(self):
        for origin in ("", f"{DOCS}/nothing", f"{DOCS}/tree"):
            seen = seen_of(TRASH.After, trash=[Item(origin, {"": file("old")})])
            self.assertIn("record" if origin != f"{DOCS}/tree" else "wrong",
                          self.found(judge.judge(TRASH, seen, False)))

    def test_an_item_that_is_not_whole(self):
        case = case_of(scenarios.trash(f"{DOCS}/tree"))
        item = Item(f"{DOCS}/tree", {"": directory(), "one": file("one")})
        self.says("lost part", case, seen_of(case.After, trash=[item]))
        whole = Item(f"{DOCS}/tree", {**item.Tree, "two": file("two")})
        self.says("", case, seen_of(case.After, trash=[item, whole]))
        self.says("part", case, seen_of(case.Before, trash=[item]))
        self.assertEqual([], judge.judge(case, seen_of(case.Before, trash=[item]), False,
                                         settled=True))
        empty = Item(f"{DOCS}/old", {"": file("")})
        self.says("short", TRASH, seen_of(TRASH.Before, trash=[empty]))

    def test_a_record_that_has_no_item_at_the_end(self):
        self.says("", TRASH, seen_of(TRASH.Before, orphans=["old.trashinfo"]))
        self.says("done", TRASH, seen_of(TRASH.After, orphans=["old.trashinfo"]), done=True)

    def test_an_item_that_was_to_go(self):
        item = Item(f"{DOCS}/old", {"": file("old")})
        case = Case(World(TREE, (item,)), World(TREE), (), frozenset())
        self.says("done", case, seen_of(case.Before), done=True)
        self.says("", case._replace(TrashFree=True), seen_of(case.Before), done=True)

    def test_a_half_done_state_that_no_command_names(self):
        half = seen_of(COPY.Before, **{"new": directory()})
        for history, rules in (("", ["unnamed"]), ("copy, interrupted, 1 of 3 done", [])):
            self.assertEqual(rules, self.found(judge.judge_told(COPY, half, False, history, "")))

    def test_a_hidden_name_that_no_command_names(self):
        seen = seen_of(COPY.Before, hidden={f"{DOCS}/.tavro-abc/one": file("one")})
        for history, doctor, rules in (("", "", ["leftover"]), ("interrupted", "", []),
                                       ("", "left over: .tavro-abc", [])):
            faults = judge.judge_told(COPY, seen, False, history, doctor)
            self.assertEqual(rules, self.found(faults))

    def test_an_undo_that_does_not_bring_back_what_was(self):
        old, new = seen_of(COPY.Before), seen_of(COPY.After)
        half = seen_of(COPY.Before, **{"new": directory()})
        for seen, status, expected, rules in (
                (old, 0, COPY.Before, []), (new, 0, COPY.Before, ["undo"]),
                (old, 1, COPY.Before, ["undo"]), (new, 0, COPY.After, []),
                (old, 0, COPY.After, ["stuck"]), (old, 1, None, []), (new, 1, None, []),
                (half, 0, None, ["stuck"])):
            faults = judge.judge_settled(COPY, seen, "undo", status, expected)
            self.assertEqual(rules, self.found(faults))


class TheEyesSeeWhatLiesThere(unittest.TestCase):
    def test_files_items_records_and_hidden_names(self):
        with tempfile.TemporaryDirectory() as root:
            docs, trash = f"{root}/a/home/d", f"{root}/{judge.HOME_TRASH}"
            for name in (f"{trash}/files", f"{trash}/info", docs, f"{root}/a/lost+found"):
                os.makedirs(name)
            whole = f"[Trash Info]\nPath={docs}/x%20y\nDeletionDate=2026-01-02T03:04:05\n"
            for name, text in (
                    (f"{trash}/files/x y", "xy"), (f"{trash}/info/x y.trashinfo", whole),
                    (f"{trash}/files/cut", "cut"), (f"{trash}/info/cut.trashinfo", whole[:40]),
                    (f"{trash}/files/bare", "bare"), (f"{trash}/info/alone.trashinfo", whole),
                    (f"{docs}/.tavro-q", "xy"), (f"{docs}/f", "f"), (f"{docs}/.tavroX", "")):
                with open(name, "w", encoding="ascii") as out:
                    out.write(text)
            known = {judge.hashlib.sha1(text.encode()).digest(): text for text in ("xy", "f")}
            seen = judge.Eyes(root, known, ("a",), 65534).look()
        self.assertEqual(["a/home", "a/home/d", "a/home/d/.tavroX", "a/home/d/f"],
                         sorted(seen.User))
        self.assertEqual("f", seen.User["a/home/d/f"].Content)
        self.assertEqual("", seen.User["a/home/d/.tavroX"].Content)
        self.assertEqual({"x y": "a/home/d/x y", "cut": "", "bare": ""},
                         {item.Name: item.Origin for item in seen.Trash})
        self.assertEqual(["a/home/d/.tavro-q"], list(seen.Hidden))
        self.assertEqual(("alone.trashinfo",), seen.Orphans)


class StatesAreThoseThatAPowerCutAllows(unittest.TestCase):
    """A log of 45 writes on two images, each of two sectors that no other write has."""

    def setUp(self):
        directory_ = tempfile.TemporaryDirectory()
        self.addCleanup(directory_.cleanup)
        self.m_top, rng = directory_.name, random.Random(5)
        log, number = b"", 0

        def entry(kind, image, data=b"", offset=0):
            return struct.pack("=ccxxIQ", kind, image, len(data), offset) + data

        for name in (b"start", b"exit 0", b"committed", b"end"):
            log += entry(b"m", b"m", name)
            for _ in range(15 if name != b"end" else 0):
                number += 1
                image = rng.choice((b"a", b"b"))
                data = bytes([number]) * 512 + bytes([number + 100]) * 512
                log += entry(b"w", image, data, rng.randrange(4) * 1024)
                if rng.random() < 0.2:
                    log += entry(b"f", image)
        with open(f"{self.m_top}/log", "wb") as out:
            out.write(log)
        for image in "ab":
            with open(f"{self.m_top}/base-{image}", "wb") as out:
                out.truncate(4096)
        self.m_recording = disk.Recording(f"{self.m_top}/log", "ab")

    def allowed(self, cut, image):
        """By the definition: the bytes that each sector may hold."""
        allowed = [{0} for _ in range(8)]
        entries = self.m_recording.Entries[:cut]
        flushed = max((number for number, entry in enumerate(entries)
                       if entry.Kind == "f" and entry.Image == image), default=-1)
        for number, entry in enumerate(entries):
            if entry.Kind == "w" and entry.Image == image:
                for half in (0, 1):
                    sector, now = entry.Offset // 512 + half, {entry.Data[512 * half]}
                    allowed[sector] = now if number < flushed else allowed[sector] | now
        return allowed

    def test_what_was_flushed_is_there_and_the_rest_old_or_new(self):
        states = disk.choose_states(self.m_recording, 300, random.Random(3), ())
        bases = {image: (f"{self.m_top}/base-{image}", f"{self.m_top}/{image}") for image in "ab"}
        built, ways, lacking = set(), set(), 0
        for state in disk.build_states(bases, self.m_recording, states):
            whole = []
            for image in "ab":
                with open(f"{self.m_top}/{image}", "rb") as built_image:
                    data = built_image.read()
                whole.append(data)
                for sector, allowed in enumerate(self.allowed(state.Cut, image)):
                    held = set(data[sector * 512:(sector + 1) * 512])
                    self.assertEqual(1, len(held))
                    self.assertLessEqual(held, allowed)
                    lacking += held != {max(allowed)}
            built.add(tuple(whole))
            ways.add(state.Way)
            if state.Way == "prefix":
                self.assertEqual(tuple(whole), self.played(state.Cut))
        self.assertEqual({"prefix", "subset", "reordered", "torn"}, ways)
        self.assertGreater(len(built), 150)
        self.assertGreater(lacking, 100)

    def played(self, cut):
        images = {"a": bytearray(4096), "b": bytearray(4096)}
        for entry in self.m_recording.Entries[:cut]:
            if entry.Kind == "w":
                images[entry.Image][entry.Offset:entry.Offset + len(entry.Data)] = entry.Data
        return tuple(bytes(image) for image in images.values())

    def test_every_prefix_is_taken_where_there_is_room(self):
        states = disk.choose_states(self.m_recording, 300, random.Random(3), ())
        prefixes = {self.played(state.Cut) for state in states if state.Way == "prefix"}
        wanted = {self.played(cut) for cut in range(len(self.m_recording.Entries) + 1)}
        self.assertEqual(wanted, prefixes)
        self.assertIn(self.m_recording.Marks["exit"], [state.Cut for state in states])


class ScenariosAreWhatTheySay(unittest.TestCase):
    def test_each_has_another_name_and_changes_something(self):
        every = [*scenarios.all_scenarios(), *scenarios.peers(), *scenarios.specimens()]
        self.assertEqual(len(every), len({one.Name for one in every}))
        for one in every:
            case = scenarios.case_of(one)
            self.assertNotEqual(case.Before, case.After, one.Name)

    def test_each_file_of_the_user_is_recognised_by_its_bytes(self):
        tree = scenarios.layout()
        files = [path for path, what in tree.items() if isinstance(what, int)]
        self.assertEqual(sorted(files), sorted(scenarios.known_contents(tree).values()))


if __name__ == "__main__":
    unittest.main()
