"""How the programs were built, seen in the built files: python3 -B tests/packaging/hardening.py BUILD"""

import pathlib
import re
import subprocess
import sys
import unittest

BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
DEVICE = BUILD / "device"
DYNAMIC = [BUILD / "setobdconf.cgi", DEVICE / "htdocs/channeldeviceconfig.cgi", DEVICE / "htdocs/reboot.cgi",
           DEVICE / "bin/nvm-service", DEVICE / "bin/toggle-device-allocation"]
STATIC = [DEVICE / "bin/cgi-gate", DEVICE / "bin/class-archive"]

# What the tests' preloaded libraries stand in front of, and libxml2's. Under another name, as the checked
# calls of the C library have, a call would pass them unseen.
WATCHED = ("open close read write pwrite fsync ftruncate posix_fallocate fchmod fchown fstat stat lstat "
           "readlink rename recv send socket connect").split()


def told(*command):
    return subprocess.run(command, capture_output=True, text=True, check=True).stdout


def undefined(file):
    """The names that the program takes from libraries."""
    return set(re.findall(r"^\s+U ([^@\s]+)", told("nm", "--dynamic", file), re.MULTILINE))


class Hardening(unittest.TestCase):
    def test_programs_are_position_independent(self):
        for file in DYNAMIC + STATIC:
            with self.subTest(file.name):
                self.assertRegex(told("readelf", "--file-header", file), r"Type:\s+DYN \(Position-Independent")
                self.assertRegex(told("readelf", "--dynamic", file), r"FLAGS_1.*\bPIE\b")

    def test_what_the_loader_fills_in_is_read_only_at_once(self):
        for file in DYNAMIC + STATIC:
            with self.subTest(file.name):
                self.assertIn("GNU_RELRO", told("readelf", "--program-headers", "--wide", file))
                self.assertIn("BIND_NOW", told("readelf", "--dynamic", file))

    def test_no_memory_is_writable_and_executable(self):
        for file in DYNAMIC + STATIC:
            with self.subTest(file.name):
                headers = told("readelf", "--program-headers", "--wide", file)
                self.assertRegex(headers, r"GNU_STACK.* RW +0x")
                self.assertNotIn(" RWE ", headers)

    def test_the_stack_is_guarded(self):
        for file in DYNAMIC:
            with self.subTest(file.name):
                self.assertIn("__stack_chk_fail", undefined(file))

    def test_calls_of_the_c_library_are_checked(self):
        for file in DYNAMIC:
            with self.subTest(file.name):
                self.assertTrue({name for name in undefined(file) if name.endswith("_chk")} - {"__stack_chk_fail"})

    def test_jumps_have_marked_targets(self):
        if "X86-64" not in told("readelf", "--file-header", DYNAMIC[0]):
            self.skipTest("another processor")
        for file in DYNAMIC + STATIC:
            with self.subTest(file.name):
                # The library's own few are marked or not as the distribution wishes.
                main = told("objdump", "--disassemble=main", "--no-show-raw-insn", file)
                self.assertRegex(main, r"<main>:\n\s+[0-9a-f]+:\s+endbr64")

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
