"""The power fails while the settings file is stored. The machine starts again: what is in the file?

    python3 -B -m pytest tests/machine/power_cut.py --build BUILD -k PLAN

PLAN is a row of PLANS below: by_rename takes a minute or two, long about ten. BUILD holds the targets setobdconf.cgi
and fake-vm, and in machine/kernel what `tools/unpack-packages` unpacks of linux-image-cloud-amd64.
`./test -R power_cut` builds what is needed and runs all plans but long.

An emulated machine stores one value after the other on an ext4 disk, each by a request. It is killed at a random
moment. The disk is then what a power cut leaves of it (write_log.py), at that moment and at more random moments before
it. e2fsck replays its journal, as where a machine starts, and debugfs reads the file.

Stored by rename, the file must be whole, and hold the last value that was known to be stored or the one after it. So
it must where two users store in turn: the file's owner and root, or two of the group that the folder is shared by; then
it must stay readable and writable for both. Rewritten in place, each sector of it must be of one of the two. A value is
known to be stored once the machine reported so on its disk and its console.

In a plan with a lie one fsync of each request does nothing, and a file must be found that is not as it must be.
"""

import collections
import dataclasses
import functools
import itertools
import os
import pathlib
import random
import re
import subprocess
import tempfile
import time
import typing

import pytest

from machine import Kernel, Machine, libraries, logged_disk, make_disk, make_initramfs
from write_log import SECTOR, WriteLog

SOURCE = pathlib.Path(__file__).resolve().parents[2]
FILE_SYSTEM_MIB = 24
MARK = FILE_SYSTEM_MIB << 20  # where on the disk the machine reports which store is done
PROGRAM = "/setobdconf.cgi"
OWNER, OTHER, GROUP = 1000, 1001, 1002
# Busybox' dd does not write directly.
TOOLS = [pathlib.Path("/usr/bin", name) for name in ("dd", "setpriv", "strace")]
LIMIT = 120  # seconds for whatever is waited for

SCRIPT = f"""
app=/app/tarn-belox
mkdir -p $app
mount -t ext4 -o "$options" /dev/vda $app
chown 1000:1000 $app/runvex/obd.conf $app/runvex
case $way in
  # A folder that refuses new files: the file is rewritten in place.
  in_place) chown 0:0 $app/runvex ;;
  # As docs/on-a-device.md says.
  shared_by_a_group)
    chgrp {GROUP} $app/runvex $app/runvex/obd.conf
    chmod 2775 $app/runvex
    chmod g=u $app/runvex/obd.conf
    ;;
esac
sync
export LD_LIBRARY_PATH=/vm REQUEST_METHOD=GET QUERY_STRING
number=0
set -- $(echo $users | tr , ' ')
# Past the file system and not flushed: so the log of writes shows what was known to be stored at each moment.
while echo $number | /tools/dd of=/dev/vda bs=512 seek={MARK // 512} conv=sync oflag=direct status=none; do
  echo "done $number"
  number=$((number + 1))
  QUERY_STRING=CanDetectTimeout=$number$(head -c $((number * 7919 % 3000)) /dev/zero | tr '\\0' x)
  as="/tools/setpriv --reuid $1 --regid $1 --groups {GROUP}"
  [ $1 != 0 ] || as=
  $as ${{lie:+/tools/strace -o /dev/null -e inject=fsync:retval=0:when=$lie}} {PROGRAM} >/dev/null || break
  set -- "$@" $1
  shift
done
echo failed
"""

# And who stores in turn.
WAYS = {"by_rename": (OWNER,), "shared_with_root": (OWNER, 0), "shared_by_a_group": (OWNER, OTHER),
        "in_place": (OWNER,)}
# Without auto_da_alloc ext4 does not guess that a rename wants the file's data on the disk first.
WRITEBACK = "data=writeback,noauto_da_alloc"


class Case(typing.NamedTuple):
    way: str  # of WAYS
    options: str  # of the mount

    def may_write(self, user, file):
        """Whether the user may read and write it."""
        shift = 6 if user == file.user else 3 if file.group in (user, GROUP) else 0
        return user == 0 or file.mode >> shift & 6 == 6


def cases(*ways):
    return [Case(*parts) for parts in itertools.product(ways, ("data=ordered", WRITEBACK))]


# Each of so many machines gives one cut at its kill, and so many more; cases; which fsync lies.
PLANS = {
    "by_rename": (2, 11, cases("by_rename"), ""),
    "shared": (4, 5, cases("shared_with_root", "shared_by_a_group"), ""),
    "in_place": (2, 11, cases("in_place"), ""),
    # Were the first fsync missing, or the second, the test would see it.
    "sees_that_the_file_is_not_synced": (1, 23, [Case("by_rename", WRITEBACK)], "1"),
    "sees_that_the_folder_is_not_synced": (1, 23, [Case("by_rename", WRITEBACK)], "2"),
    # Each case four times: 384 cuts.
    "long": (32, 11, cases(*WAYS), ""),
}


def settings():
    """The device's settings, below and above random comments: some KB to 200 KB. As a function: the file's content
    after so many stores."""
    size = int(4000 * 50 ** random.random())
    above = random.choice((0, size // 2))
    shipped = (SOURCE / "standin/obd.conf").read_text()

    def comments(length):
        return "".join(f"# {random.getrandbits(240):060x}\n" for _ in range(length // 63))

    text = comments(above) + shipped + comments(size - above)

    def contents(number):
        # Of ever another length, so that all that follows it moves. SCRIPT makes it, too.
        value = str(number) + "x" * (number * 7919 % 3000)
        return (re.sub(r"(?m)^(VEMODCanDetectTimeout=).*", rf"\g<1>{value}", text) if number else text).encode()

    return contents


class File(typing.NamedTuple):
    content: bytes
    mode: int
    user: int
    group: int


@dataclasses.dataclass
class Cut:
    """A disk after a power cut."""

    case: Case
    path: pathlib.Path
    contents: typing.Callable  # number -> content
    known: int  # the number of the last store that was known to be done

    def file(self):
        """As it is once the journal is replayed; None when it is missing."""
        checked = subprocess.run(["/usr/sbin/e2fsck", "-fy", self.path], capture_output=True, check=False)
        assert checked.returncode <= 1, checked.stdout

        def told(command):
            return subprocess.run(["/usr/sbin/debugfs", "-R", f"{command} /runvex/obd.conf", self.path],
                                  capture_output=True, check=True).stdout

        state = re.search(rb"Mode: +(\d+)(?s:.*)User: +(\d+) +Group: +(\d+)", told("stat"))
        return File(told("cat"), int(state[1], 8), int(state[2]), int(state[3])) if state else None

    def judge(self):
        """What the file is: (a word for it, whether that is as it must be)."""
        file = self.file()
        if file is None:
            return "missing", False
        if not all(self.case.may_write(user, file) for user in WAYS[self.case.way]):
            return "closed to one of its writers", False
        found = file.content
        old, new = self.contents(self.known), self.contents(self.known + 1)
        if found in (old, new):
            return "old" if found == old else "new", True
        if any(found == self.contents(number) for number in range(self.known)):
            return "older", False
        if self.case.way != "in_place" or not found:
            return "torn", False
        # The room is taken before it is written, and the length cut last.
        long = max(len(old), len(new))
        pure = old.ljust(long, b"\0"), new.ljust(long, b"\0"), new + old[len(new):]
        is_pure = all(any(found[begin:begin + SECTOR] == text[begin:begin + SECTOR][:len(found) - begin]
                          for text in pure) for begin in range(0, len(found), SECTOR))
        return "mixed" if is_pure else "foreign", is_pure


@pytest.fixture
def boot(build, tmp_path):
    """Starts the machine."""
    kernel, program = Kernel(build / "machine/kernel"), build / "setobdconf.cgi"
    # In the place of the real VM, which would take seconds here.
    vm = build / "standin/libfake-vm.so"
    initramfs = make_initramfs(tmp_path / "initramfs", kernel, SCRIPT, {
        PROGRAM: program, "/vm/libjvm.so": vm, **{f"/tools/{tool.name}": tool for tool in TOOLS},
        **libraries(program, vm, *TOOLS)})
    yield functools.partial(Machine, kernel, initramfs)
    initramfs.unlink()


def cuts_of(boot, case, lie, more, folder):
    """One machine, killed: the disk at that moment, and at `more` moments before it."""
    contents = settings()
    (folder / "tree/runvex").mkdir(parents=True)
    (folder / "tree/runvex/obd.conf").write_bytes(contents(0))
    image, running, log, path = (folder / name for name in ("image", "running", "log", "cut"))
    make_disk(image, folder / "tree", f"{FILE_SYSTEM_MIB}M", "-b", "4096", "-J", "size=4",
              "-E", "lazy_itable_init=0,lazy_journal_init=0,root_owner=0:0")
    os.truncate(image, MARK + 4096)
    subprocess.run(["cp", "--sparse=always", image, running], check=True)
    log.touch()
    users = ",".join(map(str, WAYS[case.way]))
    with boot(logged_disk(running, log), f"way={case.way} lie={lie} options={case.options} users={users}") as machine:
        machine.wait_for(r"^done 0$", LIMIT)
        begin = time.monotonic()
        stores = random.randint(2, 10)
        machine.wait_for(rf"^done {stores}$|failed", LIMIT)
        # Anywhere in the next two stores or so, however slow this machine is.
        time.sleep(random.uniform(0, 2) * (time.monotonic() - begin) / stores)
        machine.kill()
        assert "failed" not in machine.console(), machine.console()[-3000:]

    written = WriteLog(log)
    marks = [(index, int(number)) for index, number in written.written_at(MARK)]
    count = len(written.entries)
    for moment in (count, *(random.randint(marks[0][0] + 1, count) for _ in range(more))):
        written.build(image, path, moment, random)
        yield Cut(case, path, contents, max(mark for index, mark in marks if index < moment))


@pytest.mark.parametrize("kills, more, cases, lie", PLANS.values(), ids=PLANS)
def test_the_file_is_as_it_must_be(boot, kills, more, cases, lie):
    counts, faults = collections.Counter(), []
    for case in itertools.islice(itertools.cycle(random.sample(cases, len(cases))), kills):
        with tempfile.TemporaryDirectory(prefix="power-cut-") as folder:
            for cut in cuts_of(boot, case, lie, more, pathlib.Path(folder)):
                word, is_right = cut.judge()
                counts[case, word] += 1
                if not is_right:
                    faults.append(f"{case}: {word}, where {cut.known} was known to be stored")
    print("\n".join(f"{count} {word}: {case}" for (case, word), count in sorted(counts.items())))
    assert counts.total() == kills * (more + 1)
    assert bool(faults) == bool(lie), "\n".join(faults)
