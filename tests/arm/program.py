"""The program itself for another processor, emulated, with the fake Java VM in the place of the real one and
with that processor's real one:

    python3 -B tests/arm/program.py ARCHITECTURE [Class[.test]]
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
cat /app/tarn-belox/runvex/obd.conf
echo "log: "
cat /tmp/cgi.log
"""

FAKE_VM = ("LD_PRELOAD=/build/standin/libfake-vm.so",)
REAL_VM = ("JAVA_CLASSPATH=/build/device/java", "JAVA_OPTIONS=-XX:VMOptionsFile=/build/device/java.options")


def request(value, vm=FAKE_VM):
    """The page, the program's status, the settings file and the log of a request with this value."""
    run = [SOURCE / "tests/arm/run", ARCHITECTURE, "--through", "sh", "-c", REQUEST, "request", ";",
           *vm, "REQUEST_METHOD=GET",
           f"QUERY_STRING=CanDetectTimeout={value}", "--", "setobdconf.cgi"]
    done = subprocess.run(run, capture_output=True, text=True, timeout=300, check=True)
    page, _, rest = done.stdout.partition("\nstatus ")
    rest, _, log = rest.partition("log: \n")
    status, _, settings = rest.partition("\n")
    return page, status, settings, log


class Program(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if reason := root.why_not_for(ARCHITECTURE):
            raise unittest.SkipTest(reason)

    def test_a_request_stores_the_value(self):
        page, status, settings, log = request(500)
        self.assertIn("</html>", page)
        self.assertIn("500", page)
        self.assertEqual(status, "0")
        self.assertEqual(settings, "[SETTINGS]\nVEMODCanDetectTimeout=500\n")
        self.assertIn("src/SetObdConf", log)

    def test_a_request_stores_the_value_with_the_real_java_vm(self):
        page, status, settings, log = request("500", REAL_VM)
        # Of the VM not a word.
        self.assertEqual(page, request("500")[0])
        self.assertEqual(status, "0")
        self.assertEqual(settings, "[SETTINGS]\nVEMODCanDetectTimeout=500\n")
        self.assertEqual(booted.places(log), booted.PLACES)

    def test_the_real_java_vm_finds_no_class_where_there_is_none(self):
        page, status, settings, log = request("500", ("JAVA_CLASSPATH=/nowhere", *REAL_VM[1:]))
        self.assertNotIn("<h2>", page)
        self.assertEqual(status, "1")
        self.assertEqual(settings, "[SETTINGS]\nVEMODCanDetectTimeout=1\n")
        self.assertIn("Class 'com/tarn/vemo/config/ConfigVemo' not found", log)


if __name__ == "__main__":
    unittest.main(verbosity=2)
