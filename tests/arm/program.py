"""The program itself for another processor, emulated, with the fake Java VM in the place of the real one:

    python3 -B tests/arm/program.py ARCHITECTURE [Class[.test]]
"""

import pathlib
import subprocess
import sys
import unittest

ARCHITECTURE = sys.argv.pop(1)
SOURCE = pathlib.Path(__file__).resolve().parents[2]

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


def request(value):
    """The page, the program's status, the settings file and the log of a request with this value."""
    run = [SOURCE / "tests/arm/run", ARCHITECTURE, "--through", "sh", "-c", REQUEST, "request", ";",
           "LD_PRELOAD=/build/tests/libfake-vm.so", "REQUEST_METHOD=GET",
           f"QUERY_STRING=CanDetectTimeout={value}", "--", "setobdconf.cgi"]
    done = subprocess.run(run, capture_output=True, text=True, timeout=300, check=True)
    page, _, rest = done.stdout.partition("\nstatus ")
    rest, _, log = rest.partition("log: \n")
    status, _, settings = rest.partition("\n")
    return page, status, settings, log


class Program(unittest.TestCase):
    def test_a_request_stores_the_value(self):
        page, status, settings, log = request(500)
        self.assertIn("</html>", page)
        self.assertIn("500", page)
        self.assertEqual(status, "0")
        self.assertEqual(settings, "[SETTINGS]\nVEMODCanDetectTimeout=500\n")
        self.assertIn("src/SetObdConf", log)


if __name__ == "__main__":
    unittest.main(verbosity=2)
