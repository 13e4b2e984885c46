"""Runs a command on a terminal of so many columns, and prints what its screen shows in the end.

Usage: screen.py COLUMNS [TEXT KEYS]… -- COMMAND [ARGUMENT…]

KEYS are typed when TEXT has come. They may have escapes as Python has them. For the keys "look" the
screen is printed as it is then, and Ctrl-C is typed; a number makes the window so many columns wide.
Needs python3-pyte. The exit code is that of the command.
"""

import fcntl
import os
import pty
import struct
import sys
import termios

import pyte


def set_size(terminal, columns):
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", lines, columns, 0, 0))


lines = 40
columns = int(sys.argv[1])
end = sys.argv.index("--")
steps = list(zip(sys.argv[2:end:2], sys.argv[3:end:2]))
command = sys.argv[end + 1 :]
child, terminal = pty.fork()
if child == 0:
    os.read(0, 1)  # until the window has its size
    attributes = termios.tcgetattr(0)
    attributes[3] |= termios.ECHO
    termios.tcsetattr(0, termios.TCSANOW, attributes)
    os.execvp(command[0], command)
attributes = termios.tcgetattr(terminal)
attributes[3] &= ~termios.ECHO
termios.tcsetattr(terminal, termios.TCSANOW, attributes)
set_size(terminal, columns)
os.write(terminal, b"\n")
screen = pyte.Screen(columns, lines)
stream = pyte.ByteStream(screen)
shown = b""
look = None
while True:
    try:
        read = os.read(terminal, 4096)
    except OSError:  # nobody has the terminal open any more
        break
    shown += read
    stream.feed(read)
    while steps and os.fsencode(steps[0][0]) in shown:
        text, keys = steps.pop(0)
        shown = shown.split(os.fsencode(text), 1)[1]
        if keys == "look":
            look = list(screen.display)
            os.write(terminal, b"\x03")
        elif keys.isdigit():
            screen.resize(lines, int(keys))
            screen.reset()
            set_size(terminal, int(keys))
        else:
            os.write(terminal, keys.encode().decode("unicode_escape").encode("latin-1"))
_, status = os.waitpid(child, 0)
print("\n".join(line.rstrip() for line in look or screen.display).rstrip())
sys.exit(os.WEXITSTATUS(status) if os.WIFEXITED(status) else 99)
