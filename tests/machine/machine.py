"""A whole machine, emulated: a kernel of Debian's, a small initramfs or a disk, the serial console.

Needs no privilege and no hardware support: QEMU emulates every instruction.
"""

import pathlib
import re
import shutil
import subprocess
import threading
import time
import typing

# The kernel's drivers for a disk, in the order in which they need each other; of a kernel that has some
# built in, the rest.
DISK = (
    "drivers/virtio/virtio_ring",
    "drivers/virtio/virtio",
    "drivers/virtio/virtio_pci_modern_dev",
    "drivers/virtio/virtio_pci_legacy_dev",
    "drivers/virtio/virtio_pci",
    "drivers/block/virtio_blk",
)
EXT4 = ("crypto/crc32c_generic", "lib/crc16", "fs/mbcache", "fs/jbd2/jbd2", "fs/ext4/ext4")
NETWORK = ("net/core/failover", "drivers/net/net_failover", "drivers/net/virtio_net")
# What connections.nft asks for.
PACKET_FILTER = (
    "lib/libcrc32c", "net/netfilter/nfnetlink", "net/netfilter/nf_tables", "net/ipv4/netfilter/nf_defrag_ipv4",
    "net/ipv6/netfilter/nf_defrag_ipv6", "net/netfilter/nf_conntrack", "net/netfilter/nf_conncount",
    "net/netfilter/nft_ct", "net/netfilter/nft_connlimit", "net/ipv4/netfilter/nf_reject_ipv4",
    "net/ipv6/netfilter/nf_reject_ipv6", "net/netfilter/nft_reject", "net/netfilter/nft_reject_inet",
)

# Not everybody's PATH has its folder.
MKFS = "/usr/sbin/mkfs.ext4"


class Architecture(typing.NamedTuple):
    emulator: tuple
    console: str
    parameters: str = ""


ARCHITECTURES = {
    # The kernel's own check of the timer takes a busy host for a broken timer.
    "amd64": Architecture(("qemu-system-x86_64",), "ttyS0", "no_timer_check"),
    "arm64": Architecture(("qemu-system-aarch64", "-machine", "virt", "-cpu", "cortex-a53"), "ttyAMA0"),
    "armhf": Architecture(("qemu-system-arm", "-machine", "virt", "-cpu", "cortex-a15"), "ttyAMA0"),
}

INIT = """#!/bin/busybox sh
/bin/busybox --install -s /bin
mount -t proc proc /proc
mount -t devtmpfs dev /dev
for module in {modules}; do insmod "/modules/$module.ko"; done
{script}
poweroff -f
"""


class MachineError(Exception):
    """The machine did not do what was waited for; the text holds its console's end."""


class Kernel:
    """Debian's kernel, unpacked into a folder: tools/unpack-packages does that, and tools/make-sysroot."""

    def __init__(self, folder, architecture="amd64"):
        self.architecture = ARCHITECTURES[architecture]
        images = sorted(pathlib.Path(folder).glob("boot/vmlinuz-*"))
        if not images:
            raise MachineError(f"no kernel in {folder}: tools/unpack-packages {folder} linux-image-cloud-amd64")
        self.image = images[-1]
        version = self.image.name.removeprefix("vmlinuz-")
        self._modules = pathlib.Path(folder) / "lib/modules" / version
        self.drivers = self._modules / "kernel/drivers"

    def modules(self, names):
        """The files of those that are not built in."""
        built_in = (self._modules / "modules.builtin").read_text().split()
        files = [f"kernel/{name}.ko" for name in names]
        return [self._modules / file for file in files if file not in built_in]


def libraries(binary, without=()):
    """The shared libraries that a program of this machine needs, by their paths."""
    listed = subprocess.run(["ldd", binary], capture_output=True, text=True, check=True).stdout
    found = re.findall(r"^\t(?:(\S+) => )?(/\S+) \(", listed, re.MULTILINE)
    return {path: path for name, path in found if name not in without}


def make_initramfs(path, kernel, files, script, modules=DISK, busybox="/bin/busybox"):
    """Packs an initramfs that runs the shell script as root, and then turns the machine off.

    `files`: path in the machine -> path here. Busybox' tools are there too, and the kernel's modules.
    """
    staging = path.with_suffix(".d")
    shutil.rmtree(staging, ignore_errors=True)
    for folder in ("bin", "dev", "modules", "proc", "tmp"):
        (staging / folder).mkdir(parents=True)
    drivers = kernel.modules(modules)
    for driver in drivers:
        shutil.copy(driver, staging / "modules")
    for target, source in {"/bin/busybox": busybox, **files}.items():
        target = staging / target.lstrip("/")
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, target)
    init = staging / "init"
    init.write_text(INIT.format(modules=" ".join(driver.stem for driver in drivers), script=script))
    init.chmod(0o755)
    paths = "\n".join(str(p.relative_to(staging)) for p in sorted(staging.rglob("*")))
    # Not compressed: the emulated processor would take longer to unpack it than the host to load it.
    with open(path, "wb") as archive:
        subprocess.run(["cpio", "--create", "--format=newc", "--owner=0:0", "--quiet"],
                       input=paths.encode(), stdout=archive, cwd=staging, check=True)
    shutil.rmtree(staging)


def make_disk(path, tree, size, *options):
    """A file with an ext4 file system that holds what is in the folder."""
    path.unlink(missing_ok=True)
    subprocess.run([MKFS, "-q", *options, "-d", tree, path, size], check=True)


class Tree:
    """A folder that becomes a disk without systemd, and is gone then."""

    def __init__(self, path, *folders):
        self.path = path
        shutil.rmtree(path, ignore_errors=True)
        for folder in ("app", "dev", "proc", "run", "sys", "tmp", *folders):
            self.file(folder).mkdir(parents=True, exist_ok=True)

    def file(self, name):
        return self.path / str(name).lstrip("/")

    def copy(self, target, *sources):
        """Files and folders, into a folder, as they are."""
        self.file(target).mkdir(parents=True, exist_ok=True)
        subprocess.run(["cp", "-a", *sources, self.file(target)], check=True)

    def write(self, name, text):
        self.file(name).parent.mkdir(parents=True, exist_ok=True)
        self.file(name).write_text(text, encoding="utf-8")

    def make_disk(self, path, size, *options):
        make_disk(path, self.path, size, *options)
        shutil.rmtree(self.path)


def listen_to_outside(file):
    """By the line of the web server's configuration."""
    file.write_text(file.read_text(encoding="utf-8").replace('"127.0.0.1"', '"0.0.0.0"', 1), encoding="utf-8")


def disk(path):
    """A disk for Machine. Nothing is held back, so that what was written outlives a kill."""
    return ["-drive", f"file={path},format=raw,if=virtio,cache=writeback"]


def logged_disk(path, log, name="disk"):
    """A disk for Machine whose every write and flush goes to `log` too; see write_log.py."""
    return [
        "-blockdev", f"driver=file,node-name={name}-file,filename={path}",
        "-blockdev", f"driver=file,node-name={name}-log,filename={log}",
        "-blockdev", f"driver=blklogwrites,node-name={name},file={name}-file,log={name}-log",
        # A disk with a write cache, that the kernel has to flush.
        "-device", f"virtio-blk-pci,drive={name},write-cache=on,discard=off,write-zeroes=off",
    ]


class Machine:
    """Starts on construction. As a context manager it is killed at the end.

    `parameters` go to the kernel, which hands those it does not know, NAME=VALUE, to the init as
    environment variables. `arguments` go to QEMU: disks, port forwarding.
    """

    def __init__(self, kernel, initramfs=None, arguments=(), parameters="", memory_mib=256):
        kind = kernel.architecture
        command = [
            # Should this process be killed, the machine goes with it.
            "setpriv", "--pdeathsig", "KILL", *kind.emulator,
            "-accel", "tcg", "-m", str(memory_mib), "-nodefaults", "-no-user-config",
            "-display", "none", "-no-reboot", "-serial", "stdio", "-kernel", str(kernel.image),
            "-append", f"console={kind.console} quiet panic=-1 {kind.parameters} {parameters}", *arguments,
        ]
        if initramfs is not None:
            command += ["-initrd", str(initramfs)]
        self._console = bytearray()
        self._has_ended = False
        self._changed = threading.Condition()
        self._process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         stderr=subprocess.STDOUT)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.kill()

    def _read(self):
        while chunk := self._process.stdout.read1():
            with self._changed:
                self._console += chunk
                self._changed.notify_all()
        with self._changed:
            self._has_ended = True
            self._changed.notify_all()

    def console(self):
        """All that the machine wrote so far."""
        with self._changed:
            return self._console.decode(errors="replace").replace("\r\n", "\n")

    def send(self, text):
        """Types into the console."""
        self._process.stdin.write(text.encode())
        self._process.stdin.flush()

    def _wait(self, is_done, what, seconds):
        end = time.monotonic() + seconds
        while not (result := is_done()):
            with self._changed:
                left = end - time.monotonic()
                if left > 0 and not self._has_ended:
                    self._changed.wait(min(left, 1))
                    continue
            if result := is_done():
                break
            raise MachineError(f"waited for {what}; the console's end:\n{self.console()[-3000:]}")
        return result

    def wait_for(self, pattern, seconds):
        """Waits until the console shows the regular expression; its match."""
        return self._wait(lambda: re.search(pattern, self.console(), re.MULTILINE),
                          repr(pattern), seconds)

    def wait_until_off(self, seconds):
        """Waits until the machine turned itself off; its console."""
        self._wait(lambda: self._has_ended, "the end", seconds)
        return self.console()

    def kill(self):
        """The power cut. What the machine wrote to its console before is in `console` then."""
        self._process.kill()
        self._process.wait()
        self._reader.join()
        self._process.stdin.close()
        self._process.stdout.close()
