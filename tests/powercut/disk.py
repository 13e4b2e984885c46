"""Loop devices and mounts, recordings of what a file system wrote, and the states of a disk that
a power cut can leave behind."""

import ctypes
import fcntl
import mmap
import os
import struct
import subprocess
import time
from typing import NamedTuple

NOBODY = 65534
SECTOR = 512
CHUNK = 1 << 16

libc = ctypes.CDLL(None, use_errno=True)


class HarnessError(Exception):
    """The harness itself does not work here; nothing is said about the command."""


class FileSystem(NamedTuple):
    Size: int
    Make: list
    Options: str
    Atomic: tuple  # writes at these places are never torn, as the file system is built on that


FILE_SYSTEMS = {
    "ext4": FileSystem(24 << 20, ["mkfs.ext4", "-q", "-F", "-J", "size=4", "-E",
                                  "lazy_itable_init=0,lazy_journal_init=0"], "", (1 << 10,)),
    "xfs": FileSystem(64 << 20, ["mkfs.xfs", "-q", "-f", "--unsupported"], "nouuid", ()),
    "btrfs": FileSystem(128 << 20, ["mkfs.btrfs", "-q", "-d", "single", "-m", "single"], "",
                        (64 << 10, 64 << 20)),
}


def call(name, *arguments):
    if getattr(libc, name)(*arguments) != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{name}: {os.strerror(error)}", str(arguments[0]))


def make_file_system(kind, path):
    with open(path, "wb") as image:
        image.truncate(FILE_SYSTEMS[kind].Size)
    words = FILE_SYSTEMS[kind].Make + [path]
    # Older programs make so small an XFS without being told that it is unsupported.
    for line in (words, [word for word in words if word != "--unsupported"]):
        if subprocess.run(line, check=False, capture_output=True).returncode == 0:
            return
    raise HarnessError(f"{words[0]} failed")


AUTOCLEAR, DIRECT = 4, 16


def attach(path, direct):
    """A loop device on the file. It goes by itself with its last user, whatever ends that one."""
    flags = AUTOCLEAR | (DIRECT if direct else 0)
    with open("/dev/loop-control", "rb") as control, open(path, "r+b") as image:
        for _ in range(200):
            number = fcntl.ioctl(control, 0x4C82)  # LOOP_CTL_GET_FREE
            device = os.open(f"/dev/loop{number}", os.O_RDWR | os.O_CLOEXEC)
            config = struct.pack("=II QQQQQ IIII 64s64s32s QQ 64x", image.fileno(), SECTOR,
                                 0, 0, 0, 0, 0, 0, 0, 0, flags, path.encode()[-63:], b"", b"", 0, 0)
            try:
                fcntl.ioctl(device, 0x4C0A, config)  # LOOP_CONFIGURE
                break
            except BlockingIOError:
                os.close(device)
            except OSError as error:
                os.close(device)
                if error.errno != 16:  # EBUSY: another process was faster
                    raise
            time.sleep(0.01)
        else:
            raise HarnessError("no free loop device")
    status = bytearray(232)
    fcntl.ioctl(device, 0x4C05, status)  # LOOP_GET_STATUS64
    if direct and not struct.unpack_from("=I", status, 52)[0] & DIRECT:
        os.close(device)
        raise HarnessError("the loop device refuses direct writes to the recorded file")
    return device, f"/dev/loop{number}"


def mount(kind, path, target, direct=False):
    device, name = attach(path, direct)
    try:
        if kind == "btrfs":
            forget(name)
        options = FILE_SYSTEMS[kind].Options
        call("mount", name.encode(), target.encode(), kind.encode(), 0, options.encode())
    finally:
        os.close(device)


def forget(device):
    """btrfs remembers devices by what they held once, and refuses an older state of one."""
    with open("/dev/btrfs-control", "rb") as control:
        try:
            fcntl.ioctl(control, 0x50009405, bytearray(struct.pack("=q4088s", 0, device.encode())))
        except OSError:
            pass  # it knew nothing of the device


def unmount(target):
    for attempt in range(100):
        try:
            return call("umount2", target.encode(), 0)
        except OSError as error:
            if error.errno != 16 or attempt == 99:
                raise
        time.sleep(0.02)


def sync(target):
    descriptor = os.open(target, os.O_RDONLY)
    try:
        call("syncfs", descriptor)
    finally:
        os.close(descriptor)


class Entry(NamedTuple):
    Kind: str  # w(rite), f(lush), m(ark)
    Image: str
    Offset: int
    Data: memoryview


class Recording:
    """The entries of a log up to the mark `end`. A cut is a number of entries that have arrived."""

    def __init__(self, path, images):
        with open(path, "rb") as file:
            data = memoryview(file.read())
        self.Entries, self.Marks, self.Commits, at = [], {}, [], 0
        while "end" not in self.Marks:
            if at >= len(data):
                raise HarnessError("the recording has no end")
            kind, image, length, offset = struct.unpack_from("=ccxxIQ", data, at)
            body = data[at + 16:at + 16 + length]
            at += 16 + length
            if kind == b"m":
                name, _, value = bytes(body).decode().partition(" ")
                self.Marks[name] = len(self.Entries)
                if name == "commit":
                    self.Commits.append(len(self.Entries))
                if name == "exit":
                    self.Exit = int(value)
            else:
                self.Entries.append(Entry(kind.decode(), image.decode(), offset, body))
        # For each cut and image: how many writes there are, and the entry after the last flush.
        self.m_writes, self.m_flushed = [dict.fromkeys(images, 0)], [dict.fromkeys(images, 0)]
        for number, entry in enumerate(self.Entries):
            grown = self.m_writes if entry.Kind == "w" else self.m_flushed
            self.m_writes.append(dict(self.m_writes[-1]))
            self.m_flushed.append(dict(self.m_flushed[-1]))
            grown[-1][entry.Image] = grown[-1][entry.Image] + 1 if entry.Kind == "w" else number + 1

    def identity(self, cut, applied):
        """The same for two states of one content: the writes that are there without a gap, by
        image, and those beyond."""
        flushed, loose, first = self.m_flushed[cut], self.pending(cut), 0
        there = {image: self.m_writes[at][image] for image, at in flushed.items()}
        while first < len(applied) and applied[first] == (loose[first], None):
            there[self.Entries[loose[first]].Image] += 1
            first += 1
        return tuple(there.values()), applied[first:]

    def pending(self, cut):
        """The writes before the cut that no flush has followed on their image, in their order."""
        flushed, entries = self.m_flushed[cut], self.Entries
        return [number for number in range(min(flushed.values()), cut)
                if entries[number].Kind == "w" and number >= flushed[entries[number].Image]]

    def flushes(self, first, last):
        return sum(entry.Kind == "f" for entry in self.Entries[self.Marks[first]:self.Marks[last]])


class Image:
    """What a disk holds, in memory; only what was ever written takes room."""

    def __init__(self, path):
        self.m_size = os.path.getsize(path)
        self.m_bytes = mmap.mmap(-1, self.m_size)
        self.m_bytes.madvise(mmap.MADV_DONTFORK)  # the commands that are started need none of it
        self.m_used = set()
        with open(path, "rb") as file:
            end = 0
            while True:
                try:
                    start = os.lseek(file.fileno(), end, os.SEEK_DATA)
                except OSError:
                    return
                end = os.lseek(file.fileno(), start, os.SEEK_HOLE)
                for at in range(start, end, CHUNK):
                    piece = os.pread(file.fileno(), min(CHUNK, end - at), at)
                    if piece.count(0) != len(piece):
                        self.write(at, piece)

    def write(self, offset, data):
        self.m_bytes[offset:offset + len(data)] = bytes(data)
        self.m_used.update(range(offset // CHUNK, (offset + len(data) - 1) // CHUNK + 1))

    def save(self, path):
        view = memoryview(self.m_bytes)
        file = os.open(path, os.O_RDWR | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, 0o600)
        os.ftruncate(file, self.m_size)
        for chunk in self.m_used:
            os.pwrite(file, view[chunk * CHUNK:(chunk + 1) * CHUNK], chunk * CHUNK)
        return file


class State(NamedTuple):
    """What was flushed before `Cut` is there; of what was written since, the writes in `Applied`:
    pairs of an entry's number and the sectors of it that arrived (None: all)."""
    Cut: int
    Way: str
    Applied: tuple


def tear(entry, rng, atomic):
    sectors = len(entry.Data) // SECTOR
    if sectors < 2 or entry.Offset in atomic:
        return None
    if rng.random() < 0.5:
        return tuple(range(rng.randrange(1, sectors)))
    return tuple(sector for sector in range(sectors) if rng.random() < 0.5)


def random_state(recording, cut, rng, atomic):
    kept = rng.choice((0.2, 0.5, 0.8))
    applied = [(number, None) for number in recording.pending(cut) if rng.random() < kept]
    way = rng.choice(("subset", "reordered", "torn"))
    if way == "reordered":
        rng.shuffle(applied)
    elif way == "torn":
        applied = [(number, tear(recording.Entries[number], rng, atomic)
                    if rng.random() < 0.4 else None) for number, _ in applied]
    return State(cut, way, tuple(applied))


def choose_states(recording, count, rng, atomic):
    """At most `count` different states from the mark `start` on: every prefix where these are at
    most half of them (else as many at random, and those at the marks), and random subsets,
    reorderings and torn writes of what no flush has followed."""
    marks, last = recording.Marks, len(recording.Entries)
    must = sorted({marks["start"], marks["exit"], marks["committed"], last})
    cuts = [cut for cut in range(marks["start"], last)
            if cut not in must and recording.Entries[cut - 1].Kind == "w"]
    # Where a commit has just ended one more call is on the disk: such moments come first.
    wanted = max(0, count // 2 - len(must))
    commits = sorted(set(recording.Commits) - set(must))
    commits = rng.sample(commits, min(len(commits), wanted * 3 // 4))
    cuts = [cut for cut in cuts if cut not in commits]
    cuts = must + commits + rng.sample(cuts, min(len(cuts), wanted - len(commits)))
    chosen, known = [], set()

    def take(state):
        key = (state.Cut >= marks["exit"], recording.identity(state.Cut, state.Applied))
        if key not in known:
            known.add(key)
            chosen.append(state)

    for cut in cuts:
        take(State(cut, "prefix", tuple((number, None) for number in recording.pending(cut))))
    loose = [cut for cut in range(marks["start"], last + 1) if recording.pending(cut)]
    for _ in range(20 * count):
        if len(chosen) >= count or not loose:
            break
        at_exit = recording.pending(marks["exit"]) and rng.random() < 0.1
        take(random_state(recording, marks["exit"] if at_exit else rng.choice(loose), rng, atomic))
    return sorted(chosen, key=lambda state: state.Cut)


def build_states(bases, recording, states):
    """Builds the states, which come in order of their cuts, and yields each when its images stand.
    `bases` maps the letter of an image to what it held at the start and to the path to build at."""
    disks = {letter: Image(path) for letter, (path, _) in bases.items()}
    at = 0
    for state in states:
        loose = set(recording.pending(state.Cut))
        for number in range(at, state.Cut):
            entry = recording.Entries[number]
            if entry.Kind == "w" and number not in loose:
                disks[entry.Image].write(entry.Offset, entry.Data)
        at = min(loose, default=state.Cut)
        files = {letter: disks[letter].save(built) for letter, (_, built) in bases.items()}
        for number, sectors in state.Applied:
            image, offset, data = recording.Entries[number][1:]
            places = [(0, len(data))]
            if sectors is not None:
                places = [(sector * SECTOR, SECTOR) for sector in sectors]
            for start, length in places:
                os.pwrite(files[image], data[start:start + length], offset + start)
        for file in files.values():
            os.close(file)
        yield state
