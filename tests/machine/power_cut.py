"""The power fails while the settings file is stored. The machine starts again: what is in the file?

    python3 -B tests/machine/power_cut.py BUILD PLAN [--kills N] [--seed N]

PLAN is a row of PLANS below: by_rename takes a minute or two, long about ten. BUILD holds the targets setobdconf.cgi,
fake-vm and store-values, and in machine/kernel what `tools/unpack-packages` unpacks of linux-image-cloud-amd64.

An emulated machine stores one value after the other on an ext4 disk. It is killed at a random moment. The disk is then
what a power cut leaves of it (write_log.py), at that moment and at more random moments before it. Another machine
mounts all these disks, so that its kernel replays their journals, and hands their files over.

Stored by rename, the file must be whole, and hold the last value that was known to be stored or the one after it. So
it must where two users store in turn: the file's owner and root, or two of the group that the folder is shared by; then
it must stay readable and writable for both. Rewritten in place, each sector of it must be of one of the two; how often
they are mixed is counted. A value is known to be stored once the machine reported so on its disk and its console.

Exit status 0: every file was as it must be. A plan with a `lie` is different: there fsync does nothing to files, or to
folders, and the status is 0 only if a file was not as it must be. Otherwise this test could not see a missing fsync.

`./test -R power_cut` builds what is needed and runs all plans but long.
"""

import argparse
import collections
import dataclasses
import itertools
import pathlib
import random
import re
import subprocess
import sys
import tarfile
import tempfile
import time

from machine import Kernel, Machine, MachineError, disk, libraries, logged_disk, make_initramfs
from write_log import SECTOR, TornLog, WriteLog

SOURCE = pathlib.Path(__file__).resolve().parents[2]
FILE_SYSTEM_MIB = 24
MARK = FILE_SYSTEM_MIB << 20  # where on the disk the machine reports which store is done
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
    # As docs/on-a-device.md says.
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
CASES = [Case(*parts) for parts in itertools.product(WAYS, ("data=ordered", WRITEBACK), ("", PROGRAM))]


@dataclasses.dataclass(frozen=True)
class Plan:
    """Each of `kills` machines gives one cut at its kill, and `cuts` more."""

    kills: int
    cuts: int
    cases: str = ""  # those of CASES that have this in their name
    lie: str = ""  # what fsync does nothing to: "file", "folder"


PLANS = {
    "by_rename": Plan(2, 11, "by rename"),
    "shared": Plan(2, 11, "shared"),
    "in_place": Plan(2, 11, "in place"),
    # Were the first fsync missing, or the second, the test would see it.
    "sees_that_the_file_is_not_synced": Plan(1, 23, lie="file"),
    "sees_that_the_folder_is_not_synced": Plan(1, 23, lie="folder"),
    # Each case twice: 384 cuts.
    "long": Plan(32, 11),
}


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
    def __init__(self, build, folder, rng):
        self.folder = folder
        self.rng = rng
        self.kernel = Kernel(build / "machine/kernel")
        self.initramfs = folder / "initramfs"
        program = build / "setobdconf.cgi"
        # In the place of the real VM, which would take seconds here.
        vm = build / "standin/libfake-vm.so"
        files = {
            PROGRAM: program,
            "/store-values": build / "tests/machine/store-values",
            "/vm/libjvm.so": vm,
            **libraries(program, without=("libjvm.so",)),
            **libraries(vm),
        }
        make_initramfs(self.initramfs, self.kernel, files, SCRIPT)

    def machine(self, disks, **parameters):
        words = " ".join(f"{name}={text}" for name, text in parameters.items())
        return Machine(self.kernel, self.initramfs, disks, words)

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
        done = int(re.findall(r"^done (\d+)$", console, re.MULTILINE)[-1])

        cuts = []
        with WriteLog(log) as written:
            marks = [(index, int(number)) for index, number in written.written_at(MARK)]
            if marks[-1][1] < done:
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
        return cuts, done

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
                try:
                    member = archive.getmember(f"./vd{letter}/runvex/obd.conf")
                    yield cut, archive.extractfile(member).read(), member
                except KeyError:
                    yield cut, None, None
        for cut in cuts:
            cut.path.unlink()


    def cut_again(self, case, lie, more):
        """Until the kill does not tear the emulator's own log."""
        for _ in range(3):
            try:
                return self.cut(case, lie, more)
            except TornLog:
                print("the kill tore the emulator's own log: this one does not count")
        sys.exit("the emulator's log is torn again and again")


def carry_out(plan, cases, laboratory):
    """The numbers of stores and of faults, and how often each case came out how."""
    counts = collections.defaultdict(collections.Counter)
    stores = faults = 0
    waiting = []
    for number in range(plan.kills):
        cuts, done = laboratory.cut_again(cases[number % len(cases)], plan.lie or "none", plan.cuts)
        stores += done
        waiting += cuts
        while len(waiting) >= DISKS_PER_MACHINE or (waiting and number + 1 == plan.kills):
            batch, waiting = waiting[:DISKS_PER_MACHINE], waiting[DISKS_PER_MACHINE:]
            for cut, found, member in laboratory.read(batch):
                word, is_right = cut.judge(found, member)
                counts[cut.case, cut.is_kill][word if is_right else word.upper()] += 1
                faults += not is_right
                if not is_right and not plan.lie:
                    print(f"{cut.case}: {word}, where {cut.known} was known to be stored")
    return stores, faults, counts


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("plan", choices=PLANS)
    parser.add_argument("--kills", type=int, help="so many machines")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().getrandbits(32))
    given = parser.parse_args()
    plan = PLANS[given.plan]
    if given.kills:
        plan = dataclasses.replace(plan, kills=given.kills)
    print(f"seed {given.seed}", flush=True)
    rng = random.Random(given.seed)
    # With a lie the library alone stores: the program is the one that is shipped.
    cases = [Case("rename", WRITEBACK, "")] if plan.lie else [case for case in CASES if plan.cases in str(case)]
    rng.shuffle(cases)
    with tempfile.TemporaryDirectory(prefix="power-cut-") as folder:
        laboratory = Laboratory(given.build.resolve(), pathlib.Path(folder), rng)
        stores, faults, counts = carry_out(plan, cases, laboratory)

    for case in sorted(cases, key=CASES.index):
        for is_kill, moment in ((True, "at the kill"), (False, "before it")):
            if found := sorted(counts[case, is_kill].items()):
                print(f"{case}, {moment}:", ", ".join(f"{many} {word}" for word, many in found))
    print(f"{plan.kills} machines killed, {plan.kills * (plan.cuts + 1)} power cuts, {stores} stores, {faults} faults")
    if plan.lie:
        sys.exit(None if faults else "no fault was found where there must be some")
    sys.exit("the file was not what it must be" if faults else None)


if __name__ == "__main__":
    main()
