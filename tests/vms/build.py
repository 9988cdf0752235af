"""A program built with one JDK runs under every other: the same page, settings file and log.

    python3 -B tests/vms/build.py BUILD
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys

import vms

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(sys.argv[1]).resolve()
REQUEST = r"""
export REQUEST_METHOD=GET QUERY_STRING=CanDetectTimeout=750 JAVA_CLASSPATH=/srv/vemo/java
export JAVA_OPTIONS=-XX:VMOptionsFile=/source/web/java.options
mkdir -p /app/tarn-belox/runvex
cp /source/standin/obd.conf /app/tarn-belox/runvex
LD_TRACE_LOADED_OBJECTS=1 /build/setobdconf.cgi | grep -o '/.*/libjvm.so' || exit
/build/setobdconf.cgi
printf '\nstatus %s\n' "$?"
cat /app/tarn-belox/runvex/obd.conf /tmp/cgi.log
"""


def build(home):
    """The program and the device's class, by this JDK; their build folder."""
    folder = BUILD / "with" / home.name
    environment = {**os.environ, "JAVA_HOME": str(home)}
    for command in (["cmake", "-S", SOURCE, "-B", folder, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
                     "-DBUILD_TESTING=OFF", "-DCMAKE_COMPILE_WARNING_AS_ERROR=ON"],
                    ["cmake", "--build", folder, "--target", "setobdconf.cgi", "device-java"]):
        done = subprocess.run(command, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, errors="replace", check=False)
        if done.returncode != 0:
            raise SystemExit(f"{home} builds nothing:\n{done.stdout}")
    return folder


def request(folder, home):
    """All that a request leaves, but for times and process numbers."""
    output = subprocess.run(
        [SOURCE / "standin/sandbox", folder, "--private-network", "--read-only", SOURCE, "/source", "--",
         "/usr/bin/env", f"LD_LIBRARY_PATH={home}/lib/server", "/bin/sh", "-c", REQUEST],
        capture_output=True, check=True, encoding="iso-8859-1").stdout
    library, rest = output.split("\n", 1)
    if pathlib.Path(library) != home / "lib/server/libjvm.so":
        raise SystemExit(f"under {home} the program loads {library}")
    return re.sub(r"(?m)^\S+ \S+(  (?:DEBUG|ERROR) +\S+ +)\d+", r"\1", rest)


homes = vms.all_vms(BUILD)
seen = {}
try:
    for builder in filter(vms.is_jdk, homes.values()):
        built = build(builder)
        for runner in homes.values():
            seen[f"built with {builder.name}, run with {runner.name}"] = request(built, runner)
finally:
    shutil.rmtree(BUILD / "with", ignore_errors=True)
if not seen:
    sys.exit("there is no JDK to build with")
first, *others = seen.items()
settings = (SOURCE / "standin/obd.conf").read_text(encoding="iso-8859-1")
for text in ("<p>Set CanDetectTimeout to 750 ms.\n</p>Set new option was successful.<br />\n",
             "</html>\n\nstatus 0\n", re.sub("(?m)^VEMODCanDetectTimeout=.*", "VEMODCanDetectTimeout=750", settings)):
    if text not in first[1]:
        sys.exit(f"{first[0]}: there is no\n{text}\nin\n{first[1]}")
print(first[0])
for name, left in others:
    print(name)
    if left != first[1]:
        sys.exit(f"{name}:\n{left}\nand {first[0]}:\n{first[1]}")
