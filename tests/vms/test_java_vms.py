"""The Java VMs of this machine: docs/on-a-device.md says of each which of the shipped options it does not know, and
whether the class archive works with it. A program built with one JDK runs under every other."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest

import logfile
import pages
import program
from program import LOG, PROGRAM, SETTINGS, read, run

OPTIONS = pathlib.Path("/srv/vemo/java.options")
UNLOCKED = ("-XX:+UnlockDiagnosticVMOptions", "-XX:+UnlockExperimentalVMOptions")
FORGIVING = "-XX:+IgnoreUnrecognizedVMOptions"
SAMPLE = "/source/standin/obd.conf"
BUILT = pathlib.Path("/tmp/built")


def all_vms():
    """Their folders; links to one are none."""
    homes = set(pathlib.Path("/usr/lib/jvm").glob("*"))
    # The one that /build was configured with may be elsewhere, and tools/make-java-runtime may have made one.
    if own := re.search(r"(?m)^JAVA_HOME_IN_USE:\w+=(.+)$", read("/build/CMakeCache.txt")):
        homes.add(pathlib.Path(own[1]))
    homes.add(pathlib.Path("/build/java-runtime"))
    return sorted(home for home in homes if (home / "lib/server/libjvm.so").exists() and not home.is_symlink())


VMS = all_vms()
# Programs can be built with these.
JDKS = [home for home in VMS if (home / "bin/javac").exists() and (home / "include/jni.h").exists()]
ROWS = {pages.code(row["Java VM"])[0]: row for row in pages.rows("docs/on-a-device.md") if "Java VM" in row}
DOCUMENTED = [home for home in VMS if home.name in ROWS]
assert JDKS and DOCUMENTED


def by_name(parameter, homes):
    return pytest.mark.parametrize(parameter, homes, ids=[home.name for home in homes])


def in_front(home, **variables):
    return {"LD_LIBRARY_PATH": f"{home}/lib/server", "JAVA_OPTIONS": f"-XX:VMOptionsFile={OPTIONS}", **variables}


def takes(home, options):
    return run(program.Request([home / "bin/java", *UNLOCKED, *options, "-version"], {})).status == 0


@by_name("home", DOCUMENTED)
def test_the_table_has_the_options_that_a_vm_does_not_know(home):
    options = [option for option in read(OPTIONS).split() if option != FORGIVING]
    unknown = [option for option in options if not takes(home, [option])]
    assert takes(home, [option for option in options if option not in unknown])
    assert unknown == pages.code(ROWS[home.name]["does not know"])


@pytest.mark.namespaces("a shell sees nothing that is executable")
@by_name("home", DOCUMENTED)
def test_the_table_says_whether_the_class_archive_works(home):
    """One is made, and a request maps it."""
    folder = f"/app/{home.name}"
    run(program.Request(["/srv/vemo/make-class-archive", PROGRAM, OPTIONS, "/srv/vemo/java", folder],
                        in_front(home, PATH="/usr/bin:/bin")))
    program.reset_device()
    run(program.get()._replace(words=["/srv/vemo/bin/class-archive", "run", folder, PROGRAM])
        .having(**in_front(home, JAVA_CLASSPATH="/build/tests/java/mapping")))
    is_mapped = f"mapped {folder}/classes.jsa" in logfile.foreign_lines(read(LOG))
    assert ("yes" if is_mapped else "no") == ROWS[home.name]["class archive"]


@pytest.fixture(scope="module", params=JDKS, ids=[home.name for home in JDKS])
def built(request):
    """The program and the device's class, by this JDK."""
    for words in (["-S", "/source", "-B", BUILT, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release", "-DBUILD_TESTING=OFF",
                   "-DCMAKE_COMPILE_WARNING_AS_ERROR=ON"],
                  ["--build", BUILT, "--target", "setobdconf.cgi", "device-java"]):
        subprocess.run(["cmake", *words], env={**os.environ, "JAVA_HOME": str(request.param)}, check=True)
    yield f"{BUILT}/setobdconf.cgi"
    shutil.rmtree(BUILT)


@by_name("home", VMS)
def test_a_program_built_with_one_runs_under_every_other(built, home):
    shutil.copy(SAMPLE, SETTINGS)
    class_path = f"{BUILT}/device/java"
    request = program.get("CanDetectTimeout=750", built).having(**in_front(home, JAVA_CLASSPATH=class_path))
    assert f" {home}/lib/server/libjvm.so (" in run(request.having(LD_TRACE_LOADED_OBJECTS="1")).page
    result = run(request)
    assert (result.page, result.status) == (program.success_page("750"), 0)
    program.expect_settings(re.sub("(?m)^(VEMODCanDetectTimeout=).*", r"\g<1>750", read(SAMPLE)))
    assert program.log_lines() == [*program.start_lines(f"-XX:VMOptionsFile={OPTIONS}", class_path),
                                   program.REDIRECTION]
