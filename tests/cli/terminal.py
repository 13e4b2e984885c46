"""Runs a command on a terminal of its own, and types when it has shown a text.

Usage: terminal.py TEXT KEYS COMMAND [ARGUMENT…]

KEYS may have escapes as Python has them; '\\x03' is Ctrl-C. What the terminal shows is printed. The exit
code is that of the command, and 99 when a signal killed it.
"""

import os
import pty
import sys

text, keys, command = os.fsencode(sys.argv[1]), sys.argv[2], sys.argv[3:]
child, terminal = pty.fork()
if child == 0:
    os.execvp(command[0], command)
shown = b""
while True:
    try:
        shown += os.read(terminal, 4096)
    except OSError:  # nobody has the terminal open any more
        break
    if keys and text in shown:
        os.write(terminal, keys.encode().decode("unicode_escape").encode("latin-1"))
        keys = ""
_, status = os.waitpid(child, 0)
sys.stdout.buffer.write(shown.replace(b"\r\n", b"\n"))
sys.exit(os.WEXITSTATUS(status) if os.WIFEXITED(status) else 99)
