"""A whole machine, emulated: a kernel of Debian's, a small initramfs or a disk, the serial console.

Needs no privilege and no hardware support: QEMU emulates every instruction.
"""

import contextlib
import os
import re
import shutil
import subprocess
import tempfile
import time

# The kernel's drivers for a disk, in the order in which they need each other; of a kernel that has some
# built in, the rest.
DISK = (
    "drivers/virtio/virtio_ring", "drivers/virtio/virtio", "drivers/virtio/virtio_pci_modern_dev",
    "drivers/virtio/virtio_pci_legacy_dev", "drivers/virtio/virtio_pci", "drivers/block/virtio_blk",
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


# The emulator, its console and more for the kernel.
ARCHITECTURES = {
    # The kernel's own check of the timer takes a busy host for a broken timer.
    "amd64": ("qemu-system-x86_64", "ttyS0 no_timer_check"),
    # It checks signed return addresses, by an algorithm that is quick to emulate.
    "arm64": ("qemu-system-aarch64 -machine virt -cpu max,pauth-impdef=on", "ttyAMA0"),
    "armhf": ("qemu-system-arm -machine virt -cpu cortex-a15", "ttyAMA0"),
}

INIT = """#!/bin/busybox sh
/bin/busybox --install -s /bin
mount -t proc proc /proc
mount -t devtmpfs dev /dev
for module in {modules}; do insmod "/modules/$module.ko"; done
{script}
poweroff -f
"""


class Kernel:
    """Debian's kernel, unpacked into a folder: tools/unpack-packages does that, and tools/make-sysroot."""

    def __init__(self, folder, architecture="amd64"):
        self.emulator, self.console = ARCHITECTURES[architecture]
        images = sorted(folder.glob("boot/vmlinuz-*"))
        assert images, f"no kernel in {folder}: tools/unpack-packages {folder} linux-image-cloud-amd64"
        self.image = images[-1]
        self._modules = folder / "lib/modules" / self.image.name.removeprefix("vmlinuz-")

    def modules(self, names):
        """The files of those that are not built in."""
        built_in = (self._modules / "modules.builtin").read_text().split()
        return [self._modules / f"kernel/{name}.ko" for name in names if f"kernel/{name}.ko" not in built_in]


def libraries(*binaries):
    """The shared libraries that programs of this machine need but for the Java VM's, by their paths."""
    listed = subprocess.run(["ldd", *binaries], capture_output=True, text=True, check=True).stdout
    return {path: path for path in re.findall(r"^\t(?:\S+ => )?(/\S+) \(", listed, re.MULTILINE)
            if not path.endswith("/libjvm.so")}


class Tree:
    """A folder that becomes an initramfs or a disk, and is gone then."""

    def __init__(self, path, *folders):
        self.path = path
        shutil.rmtree(path, ignore_errors=True)
        for folder in ("dev", "proc", "tmp", *folders):
            self.file(folder).mkdir(parents=True, exist_ok=True)

    def file(self, name):
        """Its path here; the folder is there."""
        file = self.path / str(name).lstrip("/")
        file.parent.mkdir(parents=True, exist_ok=True)
        return file

    def copy(self, target, *sources):
        """Files and folders, into a folder, as they are."""
        self.file(target).mkdir(exist_ok=True)
        subprocess.run(["cp", "-a", *sources, self.file(target)], check=True)

    def make_disk(self, path, size, *options):
        make_disk(path, self.path, size, *options)
        shutil.rmtree(self.path)


def make_initramfs(path, kernel, script, files=None, modules=DISK, busybox="/bin/busybox"):
    """Packs an initramfs that runs the shell script as root, and then turns the machine off; its path.

    `files`: path in the machine -> path here. Busybox' tools are there too, and the kernel's modules.
    """
    drivers = kernel.modules(modules)
    tree = Tree(path.with_suffix(".d"), "bin", "modules")
    tree.copy("modules", *drivers)
    for target, source in {"/bin/busybox": busybox, **(files or {})}.items():
        shutil.copy(source, tree.file(target))
    tree.file("init").write_text(INIT.format(modules=" ".join(driver.stem for driver in drivers), script=script))
    tree.file("init").chmod(0o755)
    # Not compressed: the emulated processor would take longer to unpack it than the host to load it.
    subprocess.run(["sh", "-euc", 'find . | cpio --create --format=newc --owner=0:0 --quiet >"$0"', path],
                   cwd=tree.path, check=True)
    shutil.rmtree(tree.path)
    return path


def make_disk(path, tree, size, *options):
    """A file with an ext4 file system that holds what is in the folder."""
    path.unlink(missing_ok=True)
    subprocess.run([MKFS, "-q", *options, "-d", tree, path, size], check=True)


def listen_to_outside(file):
    """By the line of the web server's configuration."""
    file.write_text(file.read_text(encoding="utf-8").replace('"127.0.0.1"', '"0.0.0.0"', 1), encoding="utf-8")


def logged_disk(path, log):
    """A disk for Machine whose every write and flush goes to `log` too; see write_log.py."""
    return [
        "-blockdev", f"driver=file,node-name=file,filename={path}",
        "-blockdev", f"driver=file,node-name=log,filename={log}",
        "-blockdev", "driver=blklogwrites,node-name=disk,file=file,log=log",
        # A disk with a write cache, that the kernel has to flush.
        "-device", "virtio-blk-pci,drive=disk,write-cache=on,discard=off,write-zeroes=off",
    ]


class Machine(contextlib.AbstractContextManager):
    """Starts on construction. As a context manager it is killed at the end.

    `parameters` go to the kernel, which hands those it does not know, NAME=VALUE, to the init as
    environment variables. `arguments` go to QEMU: disks, port forwarding.
    """

    def __init__(self, kernel, initramfs, arguments=(), parameters="", memory_mib=256):
        # Should this process be killed, the machine goes with it.
        command = [
            "setpriv", "--pdeathsig", "KILL", *kernel.emulator.split(),
            "-accel", "tcg", "-m", str(memory_mib), "-nodefaults", "-no-user-config",
            "-display", "none", "-no-reboot", "-serial", "stdio", "-kernel", kernel.image, "-initrd", initramfs,
            "-append", f"console={kernel.console} quiet panic=-1 {parameters}", *arguments,
        ]
        self._written = tempfile.TemporaryFile()
        self._process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=self._written,
                                         stderr=subprocess.STDOUT)

    def __exit__(self, *_):
        self.kill()

    def console(self):
        """All that the machine wrote so far."""
        written = self._written.fileno()
        return os.pread(written, os.fstat(written).st_size, 0).decode(errors="replace").replace("\r\n", "\n")

    def send(self, text):
        """Types into the console."""
        self._process.stdin.write(text.encode())
        self._process.stdin.flush()

    def _error(self, what):
        return TimeoutError(f"waited for {what}; the console's end:\n{self.console()[-3000:]}")

    def wait_for(self, pattern, seconds):
        """Waits until the console shows the regular expression; its match."""
        end = time.monotonic() + seconds
        while True:
            has_ended = self._process.poll() is not None
            if found := re.search(pattern, self.console(), re.MULTILINE):
                return found
            if has_ended or time.monotonic() > end:
                raise self._error(repr(pattern))
            time.sleep(0.02)

    def wait_until_off(self, seconds):
        """Waits until the machine turned itself off; its console."""
        try:
            self._process.wait(seconds)
        except subprocess.TimeoutExpired:
            raise self._error("the end") from None
        return self.console()

    def kill(self):
        """The power cut. What the machine wrote to its console before is in `console` then."""
        self._process.kill()
        self._process.wait()
        self._process.stdin.close()
