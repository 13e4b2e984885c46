"""A place where a broken file manager can destroy nothing.

The whole run lives in a mount namespace of its own in which everything is read-only but one scratch
folder in memory, and in which there are no devices but /dev/null and its like. Each run of a test
program gets another namespace inside it, where that scratch is read-only too: it can write to a
fresh folder in memory, to a volume that is mounted in it, and to a fresh /dev/shm, all gone with
it, has no privilege left that could change the fence, and takes all its children along when it is
ended.
"""

import ctypes
import os
import re
import signal
import subprocess
import sys
import tempfile
from pathlib import Path

# What the tests need to give files away and to become an ordinary user. No right to mount, to reach
# devices or to trace is among them.
KEPT_CAPABILITIES = (
    "-all,+chown,+dac_override,+dac_read_search,+fowner,+fsetid,+setuid,+setgid"
)
DEVICES = ("null", "zero", "full", "random", "urandom")
OUT_OF_TIME = (128 + 9, 128 + 24)  # SIGKILL and SIGXCPU, as the shell tells them
INSIDE = "TAVRO_MUTATION_FENCE"

AT_RECURSIVE = 0x8000
MOUNT_SETATTR = 442  # the number of the system call, the same on every architecture
MS_NOSUID, MS_NODEV, MS_BIND, MS_MOVE = 2, 4, 4096, 8192


class NoFence(Exception):
    """The fence cannot be put up here, or does not hold."""


class _MountAttributes(ctypes.Structure):
    _fields_ = [(name, ctypes.c_uint64) for name in ("set", "clear", "propagation", "userns")]


_libc = ctypes.CDLL(None, use_errno=True)


def _check(result, what):
    if result != 0:
        raise NoFence(f"{what}: {os.strerror(ctypes.get_errno())}")


def _make_all_read_only():
    attributes = _MountAttributes(set=1 | MS_NOSUID)
    _check(
        _libc.syscall(
            *(MOUNT_SETATTR, -1, b"/", AT_RECURSIVE),
            *(ctypes.byref(attributes), ctypes.sizeof(attributes)),
        ),
        "making everything read-only",
    )


def _mount(source, target, kind, flags, options=""):
    _check(
        _libc.mount(
            os.fsencode(source), os.fsencode(target), kind.encode(), flags, options.encode()
        ),
        f"mounting {target}",
    )


def enter():
    """Runs this program again inside the fence and returns there the path of the scratch folder.
    Outside, it does not return."""
    scratch = os.environ.get(INSIDE)
    if scratch:
        _put_up(Path(scratch))
        return Path(scratch)
    scratch = tempfile.mkdtemp(prefix="tavro-mutation-")
    # What is inside ends with this program, however that ends.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    command = ["setpriv", "--pdeathsig", "KILL"]
    command += ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
    if os.geteuid() != 0:
        command += ["--user", "--map-root-user"]
    ids = f"{os.getuid()}:{os.getgid()}"
    try:
        possible = subprocess.run(command + ["true"], capture_output=True, text=True)
        if possible.returncode != 0:
            raise NoFence(
                "mutants run only where everything else is read-only for them, and this process "
                f"cannot make such a place: {possible.stderr.strip()}"
            )
        environment = dict(os.environ, **{INSIDE: scratch, INSIDE + "_IDS": ids})
        status = subprocess.run(command + [sys.executable] + sys.argv, env=environment).returncode
    finally:
        os.rmdir(scratch)
    sys.exit(status)


def _put_up(scratch):
    _make_all_read_only()
    _mount("tavro", scratch, "tmpfs", MS_NOSUID | MS_NODEV, "mode=755")
    devices = scratch / "dev"
    devices.mkdir()
    _mount("tavro", devices, "tmpfs", MS_NOSUID, "mode=755,size=64k")
    for name in DEVICES:
        (devices / name).touch()
        _mount(f"/dev/{name}", devices / name, "", MS_BIND)
    (devices / "shm").mkdir()
    (devices / "fd").symlink_to("/proc/self/fd")
    _mount(devices, "/dev", "", MS_MOVE)
    devices.rmdir()
    (scratch / "run").mkdir()
    os.environ["TMPDIR"] = str(scratch)
    os.environ.pop("CCACHE_DIR", None)
    _prove(scratch)


def command(scratch, seconds, program, *arguments):
    """The command that runs `program` inside the inner fence, in an empty folder of its own. It may
    use the processor for so many seconds."""
    run = scratch / "run"
    user, group = os.environ[INSIDE + "_IDS"].split(":")
    unshare = ["unshare", "--mount", "--pid", "--fork", "--kill-child"]
    prepare = ""
    if user == "0":
        drop = f"setpriv --no-new-privs --inh-caps=-all --bounding-set={KEPT_CAPABILITIES}"
    else:
        # Who the ordinary user is again is written to /proc.
        unshare.append("--mount-proc")
        prepare = "mount --bind /proc/sys /proc/sys; mount -o remount,bind,ro /proc/sys"
        drop = f"unshare --user --map-user={user} --map-group={group}"
    # A test program that is the first process of its namespace would not end by a signal of its
    # own (an abort), so the shell stays above it.
    script = f"""
      set -e
      mount -o remount,bind,ro,nosuid,nodev {scratch}
      mount -t tmpfs -o nosuid,nodev,size=512m,mode=1777 tavro {run}
      mount -t tmpfs -o nosuid,nodev,size=512m,mode=1777 tavro /dev/shm
      mkdir -p {run}/volumes/one
      mount -t tmpfs -o nosuid,nodev,size=64m,mode=1777 tavro {run}/volumes/one
      mount -o remount,bind,ro,nosuid /dev
      {prepare}
      cd {run}
      ulimit -v 4000000 -t {seconds} -c 0
      export HOME={run} TMPDIR={run} TAVRO_TEST_VOLUME={run}/volumes/one
      {drop} "$@" && status=0 || status=$?
      exit $status
    """
    return [*unshare, "bash", "-c", script, "bash", str(program), *arguments]


def _mount_points():
    for line in Path("/proc/self/mountinfo").read_text().splitlines():
        fields = line.split(" ")
        yield re.sub(r"\\(\d{3})", lambda match: chr(int(match[1], 8)), fields[4]), fields[5]


def _prove(scratch):
    """Stops the run unless a program inside the inner fence, with its rights, can write to its own
    folders and to nothing else."""
    project = Path(__file__).resolve().parent
    places = {"/", "/tmp", "/var/tmp", "/proc/sys/kernel", str(Path.home()), os.getcwd()}
    places |= {str(scratch), str(project), *(point for point, _ in _mount_points())}
    prober = f"""
import os, sys
open(os.environ["HOME"] + "/probe", "w").close()
open("/dev/shm/probe", "w").close()
holes = []
for place in {sorted(places)!r}:
    if place in ("/dev/shm", os.environ["HOME"]):
        continue
    probe = place + "/tavro-fence-probe"
    try:
        if os.path.isdir(place):
            open(probe, "w").close()
            os.remove(probe)
        elif place not in {[f"/dev/{name}" for name in DEVICES]!r}:
            os.close(os.open(place, os.O_WRONLY))
        else:
            continue
        holes.append(place)
    except OSError:
        pass
for file in {[str(project / "fence.py"), "/etc/passwd", "/proc/sysrq-trigger"]!r}:
    try:
        os.close(os.open(file, os.O_WRONLY))
        holes.append(file)
    except OSError:
        pass
if set(os.listdir("/dev")) - {set(DEVICES) | {"fd", "shm"}!r}:
    holes.append("devices")
if os.system("mount -t tmpfs none /mnt 2>/dev/null") == 0:
    holes.append("the right to mount")
sys.exit(", ".join(holes) or 0)
"""
    probe = subprocess.run(
        command(scratch, 15, sys.executable, "-c", prober), capture_output=True, text=True
    )
    if probe.returncode != 0:
        raise NoFence(f"the fence does not hold, nothing was run: {probe.stderr.strip()}")
