#!/usr/bin/env python3
"""Draws the README's picture: what a terminal shows of a few commands, recorded from a real one.

The commands are run on a pseudo terminal in a scratch home directory, and pyte reads the screen. One
thing is changed in what they print: the name of the scratch directory becomes /home/ada.

Usage: picture.py TAVRO PICTURE             record, and write the picture
       picture.py --check TAVRO PICTURE     record, and fail unless that is what the picture shows

Exits with 77, which CTest shows as skipped, when pyte is not installed.
"""

import difflib
import fcntl
import os
import pathlib
import pty
import re
import struct
import sys
import tempfile
import termios
from xml.sax.saxutils import escape

SYSTEM_PYTHON = "/usr/bin/python3"  # the one that has the distribution's modules
try:
    import pyte
except ImportError:
    if sys.executable != SYSTEM_PYTHON and os.access(SYSTEM_PYTHON, os.X_OK):
        os.execv(SYSTEM_PYTHON, [SYSTEM_PYTHON, *sys.argv])
    print("python3-pyte is not installed")
    sys.exit(77)

COLUMNS, ROWS = 72, 60
CELL, LINE, MARGIN = 8.4, 19, 16
COLOURS = {"default": "#d8dee4", "red": "#ff7b72", "green": "#7ee787", "brown": "#e3b341",
           "blue": "#79c0ff", "magenta": "#d2a8ff", "cyan": "#76e3ea", "black": "#8b949e",
           "brightblack": "#8b949e"}

# What is typed, and what is answered when its output ends so.
STEPS = [
    ("ls", None),
    ("tavro copy photos ~/backup/", None),
    ("tavro trash draft.txt photos", None),
    ("ls", None),
    ("tavro undo", None),
    ("tavro move draft.txt letters/2026/first.txt", None),
    ("tavro size -s backup letters", None),
    ("tavro delete photos", (b"[y/N] ", b"n\n")),
]


def prepare(home):
    """What the home directory holds before the first step."""
    (home / "photos").mkdir(parents=True)
    for name, size in (("harbour.jpg", 2_100_000), ("market.jpg", 1_400_000)):
        with open(home / "photos" / name, "wb") as file:
            file.truncate(size)
    (home / "draft.txt").write_text("Dear reader\n")


def run(command, answer, environment, feed):
    """Runs a command line on a terminal of its own, and feeds what that shows."""
    child, terminal = pty.fork()
    if child == 0:
        fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
        os.chdir(environment["HOME"])
        os.execvpe("bash", ["bash", "-c", command], environment)
    shown = b""
    while True:
        try:
            shown += os.read(terminal, 4096)
        except OSError:  # nobody has the terminal open any more
            break
        if answer and shown.endswith(answer[0]):
            os.write(terminal, answer[1])
            answer = None
    os.waitpid(child, 0)
    os.close(terminal)
    feed(shown.replace(os.fsencode(environment["HOME"]), b"/home/ada"))


def record(tavro):
    """The screen after all steps."""
    screen = pyte.Screen(COLUMNS, ROWS)
    feed = pyte.ByteStream(screen).feed
    with tempfile.TemporaryDirectory() as scratch:
        home = pathlib.Path(scratch).resolve() / "home"
        prepare(home)
        commands = pathlib.Path(scratch) / "bin"
        commands.mkdir()
        (commands / "tavro").symlink_to(tavro.resolve())
        environment = {"HOME": str(home), "PATH": f"{commands}:/usr/bin:/bin", "LC_ALL": "C.UTF-8",
                       "TERM": "xterm-256color", "TZ": "UTC"}
        for command, answer in STEPS:
            feed(b"\x1b[32m$\x1b[0m " + b"\x1b[1m" + command.encode() + b"\x1b[0m\r\n")
            run(command, answer, environment, feed)
            feed(b"\r\n")
    return screen


def spans(row):
    """The runs of one style in a row: (column, text, colour, bold)."""
    cells = [row[column] for column in range(COLUMNS)]
    runs = []
    for column, cell in enumerate(cells):
        style = (cell.fg, cell.bold)
        if runs and runs[-1][2] == style and cell.data:
            runs[-1][1] += cell.data
        elif cell.data:
            runs.append([column, cell.data, style])
    return [(column, text.rstrip(" "), *style) for column, text, style in runs if text.strip(" ")]


def draw(screen):
    """The screen as SVG; each run of text takes the room of its cells, whatever the font."""
    last = max(number for number in range(ROWS) if spans(screen.buffer[number]))
    width, height = COLUMNS * CELL + 2 * MARGIN, (last + 1) * LINE + 2 * MARGIN
    lines = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height:.0f}" '
        f'width="{width:.0f}" height="{height:.0f}" role="img">',
        "<title>A terminal: tavro copies, trashes, undoes, moves, measures, and asks before it "
        "deletes</title>",
        f'<rect width="{width:.0f}" height="{height:.0f}" rx="8" fill="#161b22"/>',
        '<g font-family="ui-monospace, DejaVu Sans Mono, Menlo, Consolas, monospace" '
        'font-size="14" xml:space="preserve">',
    ]
    for number in range(last + 1):
        words = []
        for column, text, colour, bold in spans(screen.buffer[number]):
            weight = ' font-weight="bold"' if bold else ""
            fill = COLOURS.get(colour.replace("bright", "") if colour not in COLOURS else colour,
                               f"#{colour}")
            words.append(f'<tspan x="{MARGIN + column * CELL:.1f}" fill="{fill}"{weight} '
                         f'textLength="{len(text) * CELL:.1f}" lengthAdjust="spacingAndGlyphs">'
                         f"{escape(text)}</tspan>")
        if words:
            lines.append(f'<text y="{MARGIN + (number + 1) * LINE - 5}">{"".join(words)}</text>')
    return "\n".join([*lines, "</g>", "</svg>", ""])


def text_of(picture):
    """What a picture says, a line for each of its own."""
    return [re.sub("<[^>]*>", " ", line) for line in picture.split("\n") if line.startswith("<text")]


def main(arguments):
    check = arguments[0] == "--check"
    tavro, picture = map(pathlib.Path, arguments[check:])
    drawn = draw(record(tavro))
    if not check:
        picture.write_text(drawn)
        return 0
    shown = picture.read_text()
    print("\n".join(difflib.unified_diff(text_of(shown), text_of(drawn), "the picture", "recorded now",
                                         lineterm="")) or
          ("the same text" if shown == drawn else "the same text, in another style"))
    if shown != drawn:
        print(f"`docs/picture.py {tavro} docs/picture.svg` draws it anew")
    return int(shown != drawn)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
