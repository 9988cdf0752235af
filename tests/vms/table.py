"""docs/on-a-device.md says of each Java VM which of the shipped options it does not know, and whether the
class archive works with it. Those that are on this machine are asked. Runs in the device's sandbox."""

import os
import pathlib
import subprocess
import sys

import vms

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path.append(str(SOURCE / "tests/docs"))

import pages  # noqa: E402

OPTIONS = pathlib.Path("/srv/vemo/java.options")
UNLOCKED = ("-XX:+UnlockDiagnosticVMOptions", "-XX:+UnlockExperimentalVMOptions")
FORGIVING = "-XX:+IgnoreUnrecognizedVMOptions"
PROGRAM = "/build/setobdconf.cgi"
LOG = pathlib.Path("/tmp/cgi.log")


def takes(home, options):
    return subprocess.run([home / "bin/java", *UNLOCKED, *options, "-version"], capture_output=True,
                          check=False).returncode == 0


def unknown(home):
    options = [option for option in OPTIONS.read_text(encoding="utf-8").split() if option != FORGIVING]
    if takes(home, options):
        return []
    found = [option for option in options if not takes(home, [option])]
    if not takes(home, [option for option in options if option not in found]):
        raise SystemExit(f"{home.name} takes each of the options, but not all together")
    return found


def has_class_archive(home):
    """Whether one is made, and mapped by a request."""
    folder = f"/app/{home.name}"
    environment = {"PATH": "/usr/bin:/bin", "LD_LIBRARY_PATH": f"{home}/lib/server",
                   "JAVA_OPTIONS": f"-XX:VMOptionsFile={OPTIONS}",
                   "JAVA_CLASSPATH": "/build/tests/java/mapping", "REQUEST_METHOD": "GET",
                   "QUERY_STRING": ""}
    subprocess.run(["/srv/vemo/make-class-archive", PROGRAM, OPTIONS, "/srv/vemo/java", folder],
                   env=environment, check=False)
    LOG.write_text("", encoding="utf-8")
    subprocess.run(["/srv/vemo/bin/class-archive", "run", folder, PROGRAM], env=environment,
                   stdout=subprocess.DEVNULL, check=False)
    return f"\nmapped {folder}/classes.jsa\n" in LOG.read_text(encoding="utf-8")


wrong = []
rows = {pages.code(row["Java VM"])[0]: row for row in pages.rows("docs/on-a-device.md") if "Java VM" in row}
if not rows:
    wrong.append("the table is not there")
homes = {name: home for name, home in vms.all_vms(pathlib.Path("/build")).items() if name in rows}
if not homes:
    wrong.append("none of the machine's Java VMs is in the table")
for name, home in homes.items():
    print(name)
    found = unknown(home)
    documented = pages.code(rows[name]["does not know"])
    if found != documented:
        wrong.append(f"{name} does not know {found}, documented is {documented}")
    # A shell sees nothing that is executable in a traced sandbox alone.
    if os.environ["VEMO_SANDBOX"] != "proot":
        found = "yes" if has_class_archive(home) else "no"
        documented = rows[name]["class archive"]
        if found != documented:
            wrong.append(f"{name}: whether the class archive works: {found}, documented is {documented}")
sys.exit("\n".join(wrong) or None)
