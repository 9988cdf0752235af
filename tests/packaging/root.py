"""A bare Debian 12 in a folder, to be installed into: programs run in it by chroot, in namespaces of their
own, with a network of nothing but a loopback. It is not booted: systemd does not run there.

    python3 -B tests/packaging/root.py BUILD    makes what many tests begin with: the packages, the root's archive
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys

SOURCE = pathlib.Path(__file__).resolve().parents[2]

# Beside what is bare.
INSTALLED = "systemd-sysv,udev,dbus"
# apt's cache holds what the packages depend on.
DEPENDENCIES = ("default-jre-headless", "lighttpd", "lighttpd-mod-openssl", "logrotate", "libcgicc3",
                "libmicrohttpd12", "libxml2", "nftables", "openssl")
# And what vemo-web-dev depends on and recommends.
DEVELOPMENT = ("default-jdk-headless", "libcgicc-dev", "libxml2-dev", "pkgconf", "cmake", "g++", "make")
# Which runs debian/tests.
TESTER = "autopkgtest"
# Which can take lighttpd's place.
WEB_SERVERS = ("apache2-bin", "fcgiwrap", "nginx")


def why_not():
    """Why no root can be made here, or None."""
    if os.geteuid() != 0:
        return "only root may make a root"
    probe = subprocess.run(["unshare", "--mount", "--net", "--pid", "--fork", "true"],
                           capture_output=True, check=False)
    if probe.returncode != 0:
        return "this machine does not let us make namespaces"
    return None


def why_not_for(architecture):
    """Why the packages of another architecture can neither be found here nor be unpacked, or None."""
    told = subprocess.run([SOURCE / "tests/arm/why-not", architecture], stdout=subprocess.PIPE, text=True, check=False)
    return told.stdout.strip() or None


def bare_archive(build):
    """The archive of the bare root, made when it is missing or has other packages in its cache."""
    archive = build / "roots/bare.tar"
    held = build / "roots/bare.packages"
    packages_held = " ".join((*DEPENDENCIES, *DEVELOPMENT, *WEB_SERVERS, TESTER))
    if not archive.exists() or not held.exists() or held.read_text() != packages_held:
        archive.parent.mkdir(parents=True, exist_ok=True)
        subprocess.run([SOURCE / "tools/make-bare-root", archive, INSTALLED, *packages_held.split()], check=True)
        held.write_text(packages_held)
    return archive


def newest_source():
    """When the last of the files changed that the packages are made of."""
    parts = ("src", "platform", "pages", "web", "standin", "packaging", "cmake", "docs", "CMakeLists.txt",
             "CHANGELOG.md", "package", "tools/package-version")
    files = [file for part in parts for file in (SOURCE / part, *(SOURCE / part).rglob("*"))]
    return max(file.lstat().st_mtime for file in files)


def packages(build, version=None, architecture=None):
    """The Debian packages by their names, made when they are missing or older than what is in them; with
    another version, repacked. Without an architecture this machine's."""
    folder = build / (f"packages-{architecture}" if architecture else "packages")
    made = folder / "SHA256SUMS"
    if not made.exists() or made.stat().st_mtime < newest_source():
        subprocess.run([SOURCE / "package", *([architecture] if architecture else [])], check=True)
    made = {file.name.split("_")[0]: file for file in folder.glob("*.deb")}
    if version is None:
        return made
    other = build / "packages" / version
    shutil.rmtree(other, ignore_errors=True)
    other.mkdir()
    for name, file in made.items():
        made[name] = other / f"{name}_{version}.deb"
        own = re.escape(file.name.split("_")[1])
        subprocess.run(["bash", "-euc", 'dpkg-deb --raw-extract "$0" tree; sed -Ei "$2" tree/DEBIAN/control;'
                        ' dpkg-deb --root-owner-group --build tree "$1"; rm -r tree', file, made[name],
                        rf"s/(^Version: |vemo-web \(= ){own}/\1{version}/g"], check=True, cwd=other,
                       stdout=subprocess.DEVNULL)
    return made


def ended(command, status, text=""):
    """What it wrote, to both streams. Fails when it ends with another status; None: any is good."""
    try:
        done = subprocess.run(command, input=text, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              timeout=600, check=False, errors="replace")
    except subprocess.TimeoutExpired as expired:
        raise AssertionError(f"{command} did not end:\n{(expired.output or b'').decode(errors='replace')}") from None
    if status is not None and done.returncode != status:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def told(*command):
    return ended(command, 0)


class Root:
    """A root unpacked into a folder; close() ends all that runs in it and removes it. A context that closes it."""

    def __init__(self, build, name):
        self.path = build / "roots" / name
        shutil.rmtree(self.path, ignore_errors=True)
        self.path.mkdir(parents=True)
        subprocess.run(["tar", "--extract", "--numeric-owner", "--xattrs", "--exclude=./dev/*",
                        "--file", bare_archive(build), "--directory", self.path], check=True)
        # The packages are in /root, which apt's own user may not read.
        self.file("/etc/apt/apt.conf.d/root").write_text('APT::Sandbox::User "root";\n', encoding="ascii")
        # The namespaces' first process; with it ends all in them.
        self._holder = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--net", "--pid", "--ipc", "--fork",
             "--kill-child", "sh", "-euc",
             'mount --bind "$0" "$0"; mount -t proc proc "$0/proc"; mount --rbind /dev "$0/dev";'
             ' ip link set lo up 2>/dev/null || true; echo ready; exec sleep infinity', self.path],
            stdout=subprocess.PIPE, text=True)
        assert self._holder.stdout.readline() == "ready\n"
        child = pathlib.Path(f"/proc/{self._holder.pid}/task/{self._holder.pid}/children")
        self._first = child.read_text().split()[0]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self._holder.kill()
        self._holder.wait()
        self._holder.stdout.close()
        shutil.rmtree(self.path)

    def _command(self, command):
        return ["nsenter", "--target", self._first, "--mount", "--net", "--pid", "--ipc",
                "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C",
                "DEBIAN_FRONTEND=noninteractive", "chroot", self.path, *command]

    def start(self, *command):
        """Runs on in the background, until stop() or close()."""
        told = subprocess.Popen(
            self._command(("sh", "-c", 'echo $$; exec "$@" >/dev/null 2>&1', "start", *command)),
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        told.number = told.stdout.readline().strip()
        told.stdout.close()
        return told

    def stop(self, process):
        """Ends what start() gave."""
        self.run("sh", "-c", f"kill {process.number}", status=None)
        process.wait(timeout=60)

    def run(self, *command, status=0, text=""):
        return ended(self._command(command), status, text)

    def run_beside(self, *command, status=0):
        """As run(), by a program of the machine around the root, in the root's network."""
        return ended(["nsenter", "--target", self._first, "--net", *command], status)

    def install(self, *files):
        """By apt, from package files, with what they depend on from its cache."""
        return self.install_known(*map(self.put, files))

    def put(self, file):
        """Copies a file to /root. Gives its path there."""
        shutil.copy(file, self.path / "root")
        return f"/root/{file.name}"

    def install_known(self, *names):
        return self.run("apt-get", "-q", "-y", "--no-install-recommends", "--allow-downgrades", "install", *names)

    def file(self, path):
        return self.path / path.lstrip("/")


if __name__ == "__main__":
    BUILD = pathlib.Path(sys.argv[1]).resolve()
    packages(BUILD)
    if not why_not():
        bare_archive(BUILD)
