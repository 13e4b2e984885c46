"""Checks that the JSON on standard input has the shape that the manual tells of: exactly those members,
of those kinds.

Usage: json_shape.py history|list|plan
"""

import json
import re
import sys
import urllib.parse


def fail(what, value):
    sys.exit(f"{what}: {value!r}")


def boolean(value):
    return isinstance(value, bool)


def text(value):
    return isinstance(value, str)


def count(value):
    return isinstance(value, int) and not boolean(value) and value >= 0


def time(value):
    form = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d"
    return text(value) and re.fullmatch(form, value) is not None


def path(value):
    return value is None or text(value) and value.startswith("/")


def uri(value):
    return value is None or re.fullmatch(r"file:///[A-Za-z0-9._~/%-]*", value) is not None


def paths(*names):
    return {name + kind: check for name in names for kind, check in [("Path", path), ("Uri", uri)]}


def same_path(value, name):
    """The path for reading is the one that the other has exactly."""
    if value[name + "Path"] is not None:
        exact = urllib.parse.unquote_to_bytes(value[name + "Uri"].removeprefix("file://"))
        if value[name + "Path"] != exact.decode(errors="replace"):
            fail("two paths", value)


def check(value, *shapes):
    """The value has exactly the members of one of the shapes."""
    shape = next((shape for shape in shapes if list(shape) == list(value)), None)
    if shape is None:
        fail("members", value)
    for name, is_right in shape.items():
        if not is_right(value[name]):
            fail(name, value[name])
        if name.endswith("Path"):
            same_path(value, name.removesuffix("Path"))


def check_all(values, *shapes):
    if not isinstance(values, list) or not values:
        fail("no list of anything", values)
    for value in values:
        check(value, *shapes)
    return True


entries = [paths("from", "to"), paths("original", "trash")]
items = paths("source", "destination") | {"directory": boolean, "exists": boolean}
value = json.load(sys.stdin)
if sys.argv[1] == "plan":
    check(value, {"move": boolean, "sourceLabel": text, "items": lambda all: check_all(all, items)})
elif sys.argv[1] == "list":
    date = {"deletionDate": lambda date: date is None or time(date)}
    check_all(value, paths("trash", "original") | date | {"byteCount": count, "directory": boolean})
else:
    known = {
        "id": count,
        "kind": lambda kind: kind in ("trash", "rename", "move", "copy", "mkdir", "restore", "delete", "empty"),
        "time": time,
        "undone": boolean,
        "interrupted": boolean,
        "undoable": boolean,
        "entries": lambda all: check_all(all, *entries),
    }
    check_all(value, known, known | {"reason": text})
