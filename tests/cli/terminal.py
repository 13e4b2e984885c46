"""Runs a command on a terminal of its own, and types when it has shown a text.

Usage: terminal.py TEXT KEYS COMMAND [ARGUMENT…]

KEYS may have escapes as Python has them; '\\x03' is Ctrl-C. A form feed parts keys that are typed one
after the other, each when the text has been shown once more. What the terminal shows is printed. The
exit code is that of the command, and 99 when a signal killed it.
"""

import os
import pty
import sys
import termios

text, keys, command = os.fsencode(sys.argv[1]), sys.argv[2], sys.argv[3:]
keys = keys.encode().decode("unicode_escape").encode("latin-1")
parts = [part for part in keys.split(b"\f") if part]
child, terminal = pty.fork()
if child == 0:
    attributes = termios.tcgetattr(0)
    attributes[3] |= termios.NOFLSH  # a Ctrl-C takes nothing away that was just shown
    termios.tcsetattr(0, termios.TCSANOW, attributes)
    os.execvp(command[0], command)
shown = b""
seen = 0  # how much of it was answered
while True:
    try:
        shown += os.read(terminal, 4096)
    except OSError:  # nobody has the terminal open any more
        break
    while parts and text in shown[seen:]:
        seen = shown.index(text, seen) + len(text)
        os.write(terminal, parts.pop(0))
_, status = os.waitpid(child, 0)
sys.stdout.buffer.write(shown.replace(b"\r\n", b"\n"))
sys.exit(os.WEXITSTATUS(status) if os.WIFEXITED(status) else 99)
