"""The same sources give the same bits: everything is built twice, on what is as good as two machines.

    python3 -B -m pytest tests/packaging/same_bits.py -k packages

The first is as good as this one: an unpacked archive without git, all cores, no compiler cache. The second
has all that may differ: folder, user (when root tests), umask, home, time zone, language, one core, another
day, a compiler cache that is used, a git of another owner.
"""

import hashlib
import os
import pathlib
import re
import stat
import subprocess
import tempfile

import pytest

from root import SOURCE

DATE = 1700000000
# What `cmake --install` puts down is built by these.
INSTALLED = ("setobdconf.cgi", "device", "installed-setobdconf.cgi", "installed-channeldeviceconfig.cgi")
NOBODY = 65534


def version():
    return re.search(r"^project\(vemo-web VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text(), re.MULTILINE)[1]


class Machine:
    def __init__(self, folder, wrapper, environment, umask, user=None):
        self.folder, self._wrapper, self._umask, self._user = folder, wrapper, umask, user
        self._environment = {"PATH": os.environ["PATH"], **environment}
        folder.mkdir(parents=True)
        subprocess.run(f"tar --create --exclude='./build*' --exclude=./.git --exclude=__pycache__ . |"
                       f" tar --extract --touch --directory '{folder}'", shell=True, check=True, cwd=SOURCE)

    def run(self, *command):
        done = subprocess.run([*self._wrapper, *command], cwd=self.folder, env=self._environment,
                              umask=self._umask, user=self._user, group=self._user,
                              extra_groups=None if self._user is None else [], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                              timeout=600, check=False)
        if done.returncode != 0:
            raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}")

    def install(self):
        """As anybody builds by hand; the folder that it was installed to."""
        self.run("cmake", "-S", ".", "-B", "build", "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release")
        self.run("cmake", "--build", "build", "--target", *INSTALLED)
        if "CMAKE_CXX_COMPILER_LAUNCHER" in self._environment:
            # Once more, out of the cache.
            self.run("cmake", "--build", "build", "--target", "clean")
            self.run("cmake", "--build", "build", "--target", *INSTALLED)
        self.run("env", "DESTDIR=build/staging", "cmake", "--install", "build")
        return self.folder / "build/staging/usr"


def machines(folder):
    """Two copies of the checkout, of one date."""
    archive = Machine(folder / "a", (), {"HOME": os.environ["HOME"], "LC_ALL": "C.UTF-8"}, 0o022)
    for file in archive.folder.rglob("*"):
        os.utime(file, (DATE, DATE), follow_symlinks=False)

    # A charset of one byte, letters whose capitals are others, an order of its own.
    locales = folder / "locales"
    locales.mkdir()
    subprocess.run(["localedef", "-i", "tr_TR", "-f", "ISO-8859-9", locales / "tr_TR.ISO-8859-9"], check=True)
    as_root = os.geteuid() == 0
    clone = Machine(
        folder / "another folder" / "of-a-longer-name",
        ("taskset", "--cpu-list", str(min(os.sched_getaffinity(0))), "faketime", "-f", "+40d"),
        {"HOME": "/nonexistent", "TZ": "XYZ+11:30", "LOCPATH": str(locales), "LC_ALL": "tr_TR.ISO-8859-9",
         "CMAKE_CXX_COMPILER_LAUNCHER": "ccache", "CCACHE_DIR": str(folder / "ccache"),
         # Compilers and ninja compare the times of files with one another alone.
         "NO_FAKE_STAT": "1", "DONT_FAKE_MONOTONIC": "1"},
        0o077, NOBODY if as_root else None)
    date = f"{DATE} +0000"
    author = {"GIT_AUTHOR_DATE": date, "GIT_COMMITTER_DATE": date, "PATH": os.environ["PATH"]}
    for command in (("init", "--quiet"), ("add", "--all"),
                    ("-c", "user.name=n", "-c", "user.email=e@example.org", "commit", "--quiet", "-m", "All"),
                    # An archive without git counts as the version's own.
                    ("tag", "v" + version())):
        subprocess.run(["git", *command], cwd=clone.folder, env=author, check=True)
    (folder / "ccache").mkdir()
    if as_root:
        folder.chmod(0o755)
        subprocess.run(["chown", "-R", f"{NOBODY}:{NOBODY}", folder / "ccache", clone.folder], check=True)
        subprocess.run(["chown", "-R", "0:0", clone.folder / ".git"], check=True)
    return archive, clone


def listing(folder):
    """Each file's mode, and its content's checksum or where it points. A folder's mode is the umask's."""
    found = {}
    for path in (folder, *folder.rglob("*")):
        mode = path.lstat().st_mode
        if stat.S_ISDIR(mode):
            continue
        content = (os.readlink(path) if stat.S_ISLNK(mode)
                   else hashlib.sha256(path.read_bytes()).hexdigest())
        found[str(path.relative_to(folder))] = f"{stat.filemode(mode)} {content}"
    return found


def expect_same(one, other):
    """Two folders, or files."""
    first, second = listing(one), listing(other)
    differing = sorted(name for name in first.keys() | second.keys() if first.get(name) != second.get(name))
    if differing:
        name = differing[-1]
        said = subprocess.run(
            ["diffoscope", "--no-progress", "--exclude-directory-metadata=yes", "--max-text-report-size", "20000",
             one / name, other / name], capture_output=True, text=True, check=False)
        pytest.fail(f"They differ: {', '.join(differing)}\n{name}: {first.get(name)}, {second.get(name)}\n"
                    f"{said.stdout}{said.stderr}")


@pytest.fixture(scope="module")
def both():
    # pytest's own folders are closed to other users.
    with tempfile.TemporaryDirectory(prefix="vemo-web.") as folder:
        yield machines(pathlib.Path(folder))


def test_installed_files(both):
    expect_same(*(machine.install() for machine in both))
    for machine in both:
        (machine.folder / "build/setobdconf.cgi").chmod(0o755)  # as the umask left it
    expect_same(*(machine.folder / "build/setobdconf.cgi" for machine in both))


def test_packages(both):
    for machine in both:
        machine.run("./package")
    folders = [machine.folder / "build/packages" for machine in both]
    assert len(list(folders[0].rglob("*.deb"))) >= 4
    for folder in folders:
        for file in folder.rglob("*"):
            file.chmod(0o755)  # as the maker's umask left it; what is inside counts
    expect_same(*folders)
