"""How the programs were built, seen in the built files: python3 -B tests/packaging/hardening.py BUILD"""

import pathlib
import re
import sys
import unittest

from checks import told

BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
DEVICE = BUILD / "device"
DYNAMIC = [BUILD / "setobdconf.cgi", BUILD / "pages/channeldeviceconfig.cgi", BUILD / "pages/reboot.cgi",
           DEVICE / "bin/nvm-service", DEVICE / "bin/toggle-device-allocation", BUILD / "web/keep-listening",
           BUILD / "web/exchange"]
STATIC = [BUILD / "web/cgi-gate", BUILD / "web/class-archive"]

# What the tests' preloaded libraries stand in front of, and libxml2's. Under another name, as the checked
# calls of the C library have, a call would pass them unseen.
WATCHED = ("open close read write pwrite fsync ftruncate posix_fallocate fchmod fchown fstat stat lstat "
           "readlink rename recv send socket connect").split()


# The build may be for another processor than this machine's.
if not DYNAMIC[0].exists():
    print(f"skipped 'there is no {DYNAMIC[0]}'\nOK (skipped=1)")
    sys.exit()
MACHINE = re.search(r"Machine:\s+(.*)", told("readelf", "--file-header", DYNAMIC[0]))[1]
X86_64, ARM_64, ARM_32 = "Advanced Micro Devices X86-64", "AArch64", "ARM"
# Debian's C library for 32-bit Arm has no start-up code for programs that are static and position independent.
if MACHINE == ARM_32:
    PLACED, STATIC = STATIC, []
else:
    PLACED = []


def undefined(file):
    """The names that the program takes from libraries."""
    return set(re.findall(r"^\s+U ([^@\s]+)", told("nm", "--dynamic", file), re.MULTILINE))


class Hardening(unittest.TestCase):
    def test_programs_are_position_independent(self):
        for file in DYNAMIC + STATIC:
            with self.subTest(file.name):
                self.assertRegex(told("readelf", "--file-header", file), r"Type:\s+DYN \(Position-Independent")
                self.assertRegex(told("readelf", "--dynamic", file), r"FLAGS_1.*\bPIE\b")

    def test_static_programs_have_no_library(self):
        for file in STATIC + PLACED:
            with self.subTest(file.name):
                self.assertNotIn("(NEEDED)", told("readelf", "--dynamic", file))
                self.assertNotIn("INTERP", told("readelf", "--program-headers", "--wide", file))

    def test_what_the_loader_fills_in_is_read_only_at_once(self):
        for file in DYNAMIC + STATIC:
            with self.subTest(file.name):
                self.assertIn("GNU_RELRO", told("readelf", "--program-headers", "--wide", file))
                self.assertIn("BIND_NOW", told("readelf", "--dynamic", file))

    def test_no_memory_is_writable_and_executable(self):
        for file in DYNAMIC + STATIC + PLACED:
            with self.subTest(file.name):
                headers = told("readelf", "--program-headers", "--wide", file)
                self.assertRegex(headers, r"GNU_STACK.* RW +0x")
                self.assertNotIn(" RWE ", headers)

    def test_the_stack_is_guarded(self):
        for file in DYNAMIC:
            # It has no array there.
            if file.name != "exchange":
                with self.subTest(file.name):
                    self.assertIn("__stack_chk_fail", undefined(file))

    def test_calls_of_the_c_library_are_checked(self):
        for file in DYNAMIC:
            with self.subTest(file.name):
                self.assertTrue({name for name in undefined(file) if name.endswith("_chk")} - {"__stack_chk_fail"})

    def test_jumps_have_marked_targets(self):
        # Of 32-bit Arm the newest processors alone have such, and Debian is for older.
        if MACHINE == ARM_32:
            return
        if MACHINE not in (X86_64, ARM_64):
            self.skipTest(f"what marks the targets of jumps on {MACHINE} is not known here")
        # What a function begins with.
        first, objdump = {X86_64: ("endbr64", "objdump"),
                          ARM_64: ("paciasp|bti", "aarch64-linux-gnu-objdump")}[MACHINE]
        for file in DYNAMIC + STATIC + PLACED:
            with self.subTest(file.name):
                # The library's own few are marked or not as the distribution wishes.
                main = told(objdump, "--disassemble=main", "--no-show-raw-insn", file)
                self.assertRegex(main, rf"<main>:\n\s+[0-9a-f]+:\s+({first})")

    def test_offsets_and_times_are_wide(self):
        """On 32-bit machines the C library has two of each of these; the narrow ones end at 2 GiB, and in 2038."""
        if MACHINE != ARM_32:
            return
        narrow = set("open openat creat fopen freopen mkstemp lseek fseeko ftello pread pwrite truncate ftruncate "
                     "posix_fallocate fallocate stat fstat lstat fstatat readdir fcntl sendfile time gettimeofday "
                     "clock_gettime nanosleep localtime localtime_r gmtime gmtime_r mktime utimensat futimens "
                     "select ppoll sigtimedwait recvmsg setsockopt getrlimit setrlimit".split())
        for file in DYNAMIC:
            with self.subTest(file.name):
                self.assertEqual(undefined(file) & narrow, set())

    def test_calls_that_tests_watch_keep_their_names(self):
        for file in DYNAMIC:
            with self.subTest(file.name):
                other = {name for name in undefined(file)
                         if (match := re.fullmatch(r"__(\w+?)(64)?_(chk|2)", name)) and match[1] in WATCHED}
                self.assertEqual(other, set())

    def test_the_java_vm_is_linked_and_found_in_the_build_machines_jdk(self):
        self.assertIn("JNI_CreateJavaVM", undefined(DYNAMIC[0]))
        self.assertRegex(told("readelf", "--dynamic", DYNAMIC[0]), r"\(RUNPATH\).*\[/.*/lib/server\]")


if __name__ == "__main__":
    unittest.main(verbosity=2)
