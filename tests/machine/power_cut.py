"""The power fails while the settings file is stored; the machine starts again; what is in the file?

A whole emulated machine stores one value after the other on an ext4 disk. It is killed at a random
moment. The disk is then what a power cut leaves of it (write_log.py), at that moment and at more
random moments before it. Another machine mounts all these disks, so that its kernel replays their
journals, and reads the files.

Stored by rename, the file must be whole, and hold the last value that was known to be stored or the
one after it. So it must where two users store in turn: the file's owner and root, or two of the group
that the folder is shared by; then it must stay readable and writable for both. Rewritten in place,
each sector of it must be of one of the two; how often they are mixed is counted. A value is known to
be stored once the machine told so on its disk and its console.

Exit status 0 when all was as it must be. With --lie it is 0 when something was not: fsync then does
nothing to files, or to folders, and a judge that sees no difference would be blind.
"""

import argparse
import collections
import dataclasses
import pathlib
import random
import re
import subprocess
import sys
import tarfile
import tempfile
import time

from machine import (Kernel, Machine, MachineError, disk, libraries, logged_disk, make_initramfs)
from write_log import SECTOR, TornLog, WriteLog

SOURCE = pathlib.Path(__file__).resolve().parents[2]
FILE_SYSTEM_MIB = 24
MARK = FILE_SYSTEM_MIB << 20  # where on the disk the machine tells which store is done
RESULT_MIB = 32
DISKS_PER_MACHINE = 24
PROGRAM = "/setobdconf.cgi"
OWNER, OTHER, GROUP = 1000, 1001, 1002
LIMIT = 120  # seconds for whatever is waited for

SCRIPT = f"""
app=/app/tarn-belox
mkdir -p $app
if [ "$task" = store ]; then
  mount -t ext4 -o "$options" /dev/vda $app
  chown 1000:1000 $app/runvex/obd.conf $app/runvex
  case $way in
    # A folder that refuses new files: the file is rewritten in place.
    place) chown 0:0 $app/runvex ;;
    # As docs/on-a-device.md tells.
    group)
      chgrp {GROUP} $app/runvex $app/runvex/obd.conf
      chmod 2775 $app/runvex
      chmod g=u $app/runvex/obd.conf
      ;;
  esac
  sync
  LD_LIBRARY_PATH=/vm /store-values /dev/vda {MARK} "$lie" $users $program
  exit
fi
mkdir /disks
set -- /dev/vd?
while [ $# -gt 1 ]; do
  folder=/disks/${{1##*/}}
  mkdir $folder
  mount -t ext4 $1 $folder || echo "not mounted: $1"
  shift
done
dmesg | grep 'recovery complete'
tar -cf $1 -C /disks .
umount /disks/*
sync
echo all read
"""


WAYS = {  # what it is called, and who stores in turn
    "rename": ("by rename", [OWNER]),
    "root": ("shared with root", [OWNER, 0]),
    "group": ("shared by a group", [OWNER, OTHER]),
    "place": ("in place", [OWNER]),
}


@dataclasses.dataclass(frozen=True)
class Case:
    way: str  # of WAYS
    options: str  # of the mount
    program: str  # stored by whole requests to it; by the library when empty

    def __str__(self):
        by = "requests" if self.program else "library"
        return f"{WAYS[self.way][0]}, {by}, {self.options}"

    def may_write(self, user, member):
        """Whether the user may read and write the file, a member of an archive."""
        shift = 6 if user == member.uid else 3 if member.gid in (user, GROUP) else 0
        return user == 0 or member.mode >> shift & 6 == 6


# Without auto_da_alloc ext4 does not guess that a rename wants the file's data on the disk first.
WRITEBACK = "data=writeback,noauto_da_alloc"
CASES = [Case(way, options, program) for way in WAYS
         for options in ("data=ordered", WRITEBACK) for program in ("", PROGRAM)]


def value(number):
    """Of ever another length, so that all that follows it moves. StoreValues.cpp knows it too."""
    return str(number) + "x" * (number * 7919 % 3000)


class Cut:
    """A disk after a power cut."""

    def __init__(self, case, is_kill, path, contents, known):
        self.case = case
        self.is_kill = is_kill  # the moment of the kill, not one before it
        self.path = path
        self.contents = contents  # number -> content
        self.known = known  # the number of the last store that was known to be done
        self.is_replayed = False

    def judge(self, found, member):
        """What the file is: (a word for it, whether that is as it must be)."""
        if found is None:
            return "missing", False
        if not all(self.case.may_write(user, member) for user in WAYS[self.case.way][1]):
            return "closed to one of its writers", False
        old, new = self.contents(self.known), self.contents(self.known + 1)
        if found == old:
            return "old", True
        if found == new:
            return "new", True
        if any(found == self.contents(number) for number in range(self.known)):
            return "older", False
        if not found:
            return "empty", False
        if self.case.way != "place":
            return "torn", False
        # In place. The room is taken before it is written, and the length cut last.
        long = max(len(old), len(new))
        pure = old.ljust(long, b"\0"), new.ljust(long, b"\0"), new + old[len(new):]
        for begin in range(0, len(found), SECTOR):
            sector = found[begin:begin + SECTOR]
            if all(sector != text[begin:begin + len(sector)] for text in pure):
                return "foreign", False
        return "mixed with zeros" if b"\0" in found else "mixed", True


def settings_of(seed):
    """The device's settings, below and above random comments: some KB to 200 KB."""
    rng = random.Random(seed)
    size = int(4000 * 50 ** rng.random())
    shipped = (SOURCE / "standin/obd.conf").read_text()
    above = rng.choice((0, size // 2))

    def comments(length):
        return "".join(f"# {rng.getrandbits(240):060x}\n" for _ in range(length // 63))

    text = comments(above) + shipped + comments(size - above)

    def contents(number):
        if number == 0:
            return text.encode()
        return re.sub(r"(?m)^(VEMODCanDetectTimeout=).*", lambda found: found[1] + value(number),
                      text).encode()

    return contents


class Laboratory:
    def __init__(self, build, vm, folder, rng):
        self.folder = folder
        self.rng = rng
        self.kernel = Kernel(build / "machine/kernel")
        self.initramfs = folder / "initramfs"
        program = build / "setobdconf.cgi"
        files = {
            PROGRAM: program,
            "/store-values": build / "tests/machine/store-values",
            # In the place of the real VM, which would take seconds here.
            "/vm/libjvm.so": vm,
            **libraries(program, without=("libjvm.so",)),
            **libraries(vm),
        }
        make_initramfs(self.initramfs, self.kernel, files, SCRIPT)

    def machine(self, disks, **parameters):
        told = " ".join(f"{name}={text}" for name, text in parameters.items())
        return Machine(self.kernel, self.initramfs, disks, told)

    def cut(self, case, lie, more):
        """One machine, killed: the disk at that moment, and at `more` moments before it."""
        contents = settings_of(self.rng.random())
        work = pathlib.Path(tempfile.mkdtemp(dir=self.folder))
        tree = work / "tree/runvex"
        tree.mkdir(parents=True)
        (tree / "obd.conf").write_bytes(contents(0))
        image, running, log = work / "image", work / "running", work / "log"
        with open(image, "wb") as file:
            file.truncate(MARK + 4096)
        subprocess.run(
            ["/sbin/mke2fs", "-q", "-F", "-t", "ext4", "-b", "4096", "-J", "size=4", "-d",
             work / "tree", "-E", "lazy_itable_init=0,lazy_journal_init=0,root_owner=0:0", image,
             f"{FILE_SYSTEM_MIB}M"], check=True)
        subprocess.run(["cp", "--sparse=always", image, running], check=True)
        log.touch()
        with self.machine(logged_disk(running, log), task="store", way=case.way, lie=lie,
                          options=case.options, program=case.program,
                          users=",".join(map(str, WAYS[case.way][1]))) as machine:
            machine.wait_for(r"^done 0$", LIMIT)
            begin = time.monotonic()
            stores = self.rng.randint(*((2, 10) if case.program else (10, 60)))
            machine.wait_for(rf"^done {stores}$|failed", LIMIT)
            # Anywhere in the next two stores or so, however slow this machine is.
            time.sleep(self.rng.uniform(0, 2) * (time.monotonic() - begin) / stores)
            machine.kill()
            console = machine.console()
        if "failed" in console:
            raise MachineError(f"the machine stopped storing:\n{console[-3000:]}")
        told = int(re.findall(r"^done (\d+)$", console, re.MULTILINE)[-1])

        cuts = []
        with WriteLog(log) as written:
            marks = [(index, int(number)) for index, number in written.written_at(MARK)]
            if marks[-1][1] < told:
                raise TornLog
            moments = [len(written)]
            moments += [self.rng.randint(marks[0][0] + 1, len(written)) for _ in range(more)]
            for number, count in enumerate(moments):
                path = work / f"cut{number}"
                written.build(image, path, count, self.rng)
                known = max(mark for index, mark in marks if index < count)
                cuts.append(Cut(case, number == 0, path, contents, known))
        for path in (running, log, image):
            path.unlink()
        return cuts, told

    def read(self, cuts):
        """Mounts the disks in a machine, which replays their journals, and judges their files."""
        result = self.folder / "result"
        with open(result, "wb") as file:
            file.truncate(RESULT_MIB << 20)
        disks = [argument for cut in cuts for argument in disk(cut.path)] + disk(result)
        with self.machine(disks, task="read") as machine:
            console = machine.wait_until_off(LIMIT)
        if "all read" not in console:
            raise MachineError(f"the disks were not read:\n{console[-3000:]}")
        with tarfile.open(result) as archive:
            for letter, cut in zip("abcdefghijklmnopqrstuvwxyz", cuts):
                name = f"vd{letter}"
                cut.is_replayed = f"({name}): recovery complete" in console
                try:
                    member = archive.getmember(f"./{name}/runvex/obd.conf")
                    found = archive.extractfile(member).read()
                except KeyError:
                    member = found = None
                is_left = any(re.fullmatch(rf"\./{name}/runvex/\.ini-.*\.tmp", path)
                              for path in archive.getnames())
                yield cut, found, member, is_left
        for cut in cuts:
            cut.path.unlink()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--vm", type=pathlib.Path, required=True, help="the fake Java VM library")
    parser.add_argument("--kills", type=int, default=8, help="machines that are killed")
    parser.add_argument("--cuts", type=int, default=16, help="more moments of each machine's log")
    parser.add_argument("--lie", choices=("file", "folder"), help="what fsync does nothing to")
    parser.add_argument("--only", default="", help="only cases whose name holds this text")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().getrandbits(32))
    given = parser.parse_args()
    print(f"seed {given.seed}", flush=True)
    rng = random.Random(given.seed)
    # A lie can be told to the library only: the program is the one that is shipped.
    cases = ([Case("rename", WRITEBACK, "")] if given.lie
             else [case for case in CASES if given.only in str(case)])
    rng.shuffle(cases)

    faults = stores = replayed = left = 0
    counts = collections.defaultdict(collections.Counter)
    with tempfile.TemporaryDirectory(prefix="power-cut-") as folder:
        laboratory = Laboratory(given.build.resolve(), given.vm.resolve(), pathlib.Path(folder), rng)
        waiting = []
        for number in range(given.kills):
            for _ in range(3):
                try:
                    cuts, done = laboratory.cut(cases[number % len(cases)], given.lie or "none",
                                                given.cuts)
                    break
                except TornLog:
                    print("the kill tore the emulator's own log: this one does not count")
            else:
                sys.exit("the emulator's log is torn again and again")
            stores += done
            waiting += cuts
            while len(waiting) >= DISKS_PER_MACHINE or (waiting and number + 1 == given.kills):
                batch, waiting = waiting[:DISKS_PER_MACHINE], waiting[DISKS_PER_MACHINE:]
                for cut, found, member, is_left in laboratory.read(batch):
                    word, is_right = cut.judge(found, member)
                    counts[cut.case, cut.is_kill][word if is_right else word.upper()] += 1
                    faults += not is_right
                    replayed += cut.is_replayed
                    left += is_left
                    if not is_right and not given.lie:
                        print(f"{cut.case}: {word}, where {cut.known} was known to be stored")

    for case in sorted(cases, key=CASES.index):
        for is_kill, moment in ((True, "at the kill"), (False, "before it")):
            if found := sorted(counts[case, is_kill].items()):
                print(f"{case}, {moment}:", ", ".join(f"{many} {word}" for word, many in found))
    cuts = sum(sum(counter.values()) for counter in counts.values())
    print(f"{given.kills} machines killed, {cuts} power cuts, {stores} stores, {replayed} journals "
          f"replayed, {left} temporary files left, {faults} faults")
    if given.lie:
        sys.exit(None if faults else "no fault was found where there must be some")
    sys.exit("the file was not what it must be" if faults else None)


if __name__ == "__main__":
    main()
