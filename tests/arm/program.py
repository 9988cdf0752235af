"""A request to the program for another processor, emulated, with the fake Java VM and with that processor's real one.
On arm64 signed return addresses are checked; what else the program does is left to the emulated machine.

    python3 -B tests/arm/program.py ARCHITECTURE
"""

import pathlib
import subprocess
import sys
import unittest

ARCHITECTURE = sys.argv.pop(1)
SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path += [str(SOURCE / "tests/machine"), str(SOURCE / "tests/packaging")]

import booted  # noqa: E402
import root  # noqa: E402

# Runs in the sandbox.
REQUEST = r"""
mkdir -p /app/tarn-belox/runvex
printf '[SETTINGS]\nVEMODCanDetectTimeout=1\n' >/app/tarn-belox/runvex/obd.conf
"$@" </dev/null
printf '\nstatus %s\n' "$?"
cat /app/tarn-belox/runvex/obd.conf /tmp/cgi.log
"""
FAKE_VM = ("LD_PRELOAD=/build/standin/libfake-vm.so",)
REAL_VM = ("JAVA_CLASSPATH=/build/device/java", "JAVA_OPTIONS=-XX:VMOptionsFile=/build/device/java.options")


def request(vm):
    """The page; the program's status, the settings file and the log."""
    run = [SOURCE / "tests/arm/run", ARCHITECTURE, "--through", "sh", "-c", REQUEST, "request", ";", *vm,
           "REQUEST_METHOD=GET", "QUERY_STRING=CanDetectTimeout=500", "--", "setobdconf.cgi"]
    done = subprocess.run(run, stdout=subprocess.PIPE, text=True, timeout=300, check=True)
    page, _, rest = done.stdout.partition("\nstatus ")
    return page, rest


class Program(unittest.TestCase):
    def test_a_request_stores_the_value_by_the_fake_and_the_real_java_vm(self):
        if reason := root.why_not_for(ARCHITECTURE):
            self.skipTest(reason)
        page, rest = request(REAL_VM)
        self.assertIn("<p>Set CanDetectTimeout to 500 ms.\n", page)
        self.assertTrue(rest.startswith("0\n[SETTINGS]\nVEMODCanDetectTimeout=500\n"), rest)
        self.assertEqual(booted.statements(rest), booted.STATEMENTS)
        # Of the VM not a word.
        page_of_fake, rest_of_fake = request(FAKE_VM)
        self.assertEqual(page_of_fake, page)
        self.assertTrue(rest_of_fake.startswith("0\n[SETTINGS]\nVEMODCanDetectTimeout=500\n"), rest_of_fake)
        self.assertIn("src/SetObdConf", rest_of_fake)


if __name__ == "__main__":
    unittest.main(verbosity=2)
