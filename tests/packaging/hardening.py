"""How the programs were built, seen in the built files of this machine's or another processor:

    python3 -B -m pytest tests/packaging/hardening.py --build BUILD
"""

import re

import pytest

from root import told

DYNAMIC = ("setobdconf.cgi", "pages/channeldeviceconfig.cgi", "pages/reboot.cgi", "device/bin/nvm-service",
           "device/bin/toggle-device-allocation", "web/keep-listening", "web/exchange")
STATIC = ("web/cgi-gate", "web/class-archive")
X86_64, ARM_64, ARM_32 = "Advanced Micro Devices X86-64", "AArch64", "ARM"

# What the tests' preloaded libraries stand in front of, and libxml2's. Under another name, as the checked
# calls of the C library have, a call would pass them unseen.
WATCHED = ("open close read write pwrite fsync ftruncate posix_fallocate fchmod fchown fstat stat lstat "
           "readlink rename recv send socket connect").split()
# On 32-bit machines the C library has two of each of these; these end at 2 GiB, and in 2038.
NARROW = set("open openat creat fopen freopen mkstemp lseek fseeko ftello pread pwrite truncate ftruncate "
             "posix_fallocate fallocate stat fstat lstat fstatat readdir fcntl sendfile time gettimeofday "
             "clock_gettime nanosleep localtime localtime_r gmtime gmtime_r mktime utimensat futimens "
             "select ppoll sigtimedwait recvmsg setsockopt getrlimit setrlimit".split())

dynamic = pytest.mark.parametrize("name", DYNAMIC)
static = pytest.mark.parametrize("name", STATIC)
every = pytest.mark.parametrize("name", DYNAMIC + STATIC)


@pytest.fixture(autouse=True)
def machine(build):
    """The processor that it was built for."""
    program = build / DYNAMIC[0]
    if not program.exists():
        pytest.skip(f"there is no {program}")
    return re.search(r"Machine:\s+(.*)", told("readelf", "--file-header", program))[1]


@pytest.fixture
def file(build, name):
    return build / name


def undefined(file):
    """The names that the program takes from libraries."""
    return set(re.findall(r"^\s+U ([^@\s]+)", told("nm", "--dynamic", file), re.MULTILINE))


@every
def test_is_position_independent_and_what_the_loader_fills_in_is_read_only_at_once(file, name, machine):
    if machine == ARM_32 and name in STATIC:
        return  # Debian's C library has no start-up code for such programs there
    assert re.search(r"Type:\s+DYN \(Position-Independent", told("readelf", "--file-header", file))
    entries = told("readelf", "--dynamic", file)
    assert re.search(r"FLAGS_1.*\bPIE\b", entries), entries
    assert "BIND_NOW" in entries
    assert "GNU_RELRO" in told("readelf", "--program-headers", "--wide", file)


@static
def test_has_no_library(file):
    assert "(NEEDED)" not in told("readelf", "--dynamic", file)
    assert "INTERP" not in told("readelf", "--program-headers", "--wide", file)


@every
def test_has_no_memory_that_is_writable_and_executable(file):
    headers = told("readelf", "--program-headers", "--wide", file)
    assert re.search(r"GNU_STACK.* RW +0x", headers), headers
    assert " RWE " not in headers


# web/exchange has no array on its stack.
@pytest.mark.parametrize("name", [name for name in DYNAMIC if name != "web/exchange"])
def test_its_stack_is_guarded(file):
    assert "__stack_chk_fail" in undefined(file)


@dynamic
def test_its_calls_of_the_c_library_are_checked(file):
    assert {name for name in undefined(file) if name.endswith("_chk")} - {"__stack_chk_fail"}


@every
def test_its_jumps_have_marked_targets(file, machine):
    # Of 32-bit Arm the newest processors alone have such, and Debian is for older.
    if machine == ARM_32:
        return
    # What a function begins with.
    first, objdump = {X86_64: ("endbr64", "objdump"),
                      ARM_64: ("paciasp|bti", "aarch64-linux-gnu-objdump")}[machine]
    # The library's own few are marked or not as the distribution wishes.
    main = told(objdump, "--disassemble=main", "--no-show-raw-insn", file)
    assert re.search(rf"<main>:\n\s+[0-9a-f]+:\s+({first})", main), main


@dynamic
def test_its_offsets_and_times_are_wide(file, machine):
    if machine == ARM_32:
        assert undefined(file) & NARROW == set()


@dynamic
def test_its_calls_that_tests_watch_keep_their_names(file):
    others = {name for name in undefined(file)
              if (match := re.fullmatch(r"__(\w+?)(64)?_(chk|2)", name)) and match[1] in WATCHED}
    assert others == set()
