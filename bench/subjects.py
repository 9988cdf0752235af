"""What is compared: command, environment and processor core of each, by its name."""

import pathlib
import re
import shutil

from cost import told

PROGRAM = "/build/setobdconf.cgi"
EMBEDDER = "/build/bench/bench-embedder"
FAKE_VM = "/build/standin/libfake-vm.so"
DEVICE_OPTIONS = pathlib.Path("/srv/vemo/java.options")
ARCHIVE = pathlib.Path("/app/class-archive")

REQUEST = {"REQUEST_METHOD": "GET", "QUERY_STRING": "CanDetectTimeout=500"}
DIRECTORY = {"JAVA_CLASSPATH": "/srv/vemo/java"}
# The device's class in a jar, as one would ship it without thinking.
JAR = {"JAVA_CLASSPATH": shutil.make_archive("/tmp/vemo", "zip", "/build/device/java")}


def options(file):
    return {"JAVA_OPTIONS": f"-XX:VMOptionsFile={file}"}


PLAIN = {**REQUEST, **JAR}
# Without a class archive, and with what the gate hands over while the archive fits.
OPTIONS_ALONE = {**REQUEST, **DIRECTORY, **options(DEVICE_OPTIONS)}
SHIPPED = {**REQUEST, **DIRECTORY, **options(f"{ARCHIVE}/java.options")}
WITH_FAKE_VM = {**REQUEST, **DIRECTORY, "LD_PRELOAD": FAKE_VM}

# Options whose share is in speed.md. The first step of the VM's start is without them.
ON_TRIAL = ("UseAVX", "UseSSE", "UseSVE", "UseAES", "UseSHA", "UseMD5", "DisableAttachMechanism")
FIRST_STEP = "options, but for those of the next lines"

# Numerator, denominator, and the most that CPU, wall and peak may be of it.
COMPARISONS = [
    ("program as shipped", "program, no options, jar", 0.52, None, 0.69),
    ("program as shipped, one core", "program, no options, jar, one core", 0.38, None, None),
    ("program as shipped", "bare embedder as shipped", 1.08, None, None),
    ("program with fake VM", "bare C++ program", 1.15, None, None),
    ("program with fake VM, settings on disk", "bare C++ program", None, None, None),
    ("realistic class, interpreter", "realistic class, compiler C1", None, None, None),
]


def shipped_options(name, *more, without=()):
    """A file of the shipped options, without the lines that hold one of these words, and with some more."""
    lines = [line for line in DEVICE_OPTIONS.read_text().splitlines() if not any(word in line for word in without)]
    file = pathlib.Path(f"/tmp/{name}.options")
    file.write_text("".join(f"{line}\n" for line in (*lines, *more)))
    return options(file)


def realistic_class_path():
    """The class that reads some hundred properties, with its properties; in a folder."""
    folder = shutil.copytree("/build/bench/realistic", pathlib.Path("/tmp/realistic"))
    lines = [f"vemo.bus{n % 7}.parameter{n}." + (f"limit={n * 37}" if n % 2 else f"name=Value of parameter {n}")
             for n in range(600)]
    (folder / "vemo.properties").write_text("\n".join(lines) + "\n")
    return {"JAVA_CLASSPATH": str(folder)}


def libraries(vm):
    return {"LD_LIBRARY_PATH": f"{vm}/lib/server"} if vm else {}


def make_archive(folder, vm=None):
    """A class archive for the program's own VM, or for the one in that folder; its options."""
    told("/srv/vemo/make-class-archive", PROGRAM, DEVICE_OPTIONS, "/srv/vemo/java", folder,
         env={"PATH": "/usr/bin:/bin", **libraries(vm)})
    return options(f"{folder}/java.options")


def own_vm():
    """The folder of the very VM that the program is linked to."""
    return pathlib.Path(re.search(r"libjvm\.so => (\S+)/lib/server/", told("ldd", PROGRAM))[1]).resolve()


def other_vms():
    """Name and folder of each other VM of the machine."""
    found = {library.resolve().parents[2] for library in pathlib.Path("/usr/lib/jvm").glob("*/lib/server/libjvm.so")}
    # One that tools/make-java-runtime made.
    found |= {library.parents[2] for library in pathlib.Path("/build").glob("java-runtime/lib/server/libjvm.so")}
    return {folder.name: folder for folder in sorted(found - {own_vm()})}


def requests():
    realistic = {**REQUEST, **realistic_class_path()}
    compiler = shipped_options("compiler", "-Xmixed", "-XX:TieredStopAtLevel=1", "-XX:CompileThresholdScaling=10")
    return {
        "program as shipped": ([PROGRAM], SHIPPED, None),
        "program, no options, jar": ([PROGRAM], PLAIN, None),
        "program as shipped, one core": ([PROGRAM], SHIPPED, 0),
        "program, no options, jar, one core": ([PROGRAM], PLAIN, 0),
        "bare embedder as shipped": ([EMBEDDER], SHIPPED, None),
        "program with fake VM": ([PROGRAM], WITH_FAKE_VM, None),
        "program with fake VM, settings on disk": ([PROGRAM], WITH_FAKE_VM, None),
        "bare C++ program": (["/build/bench/bench-bare"], WITH_FAKE_VM, None),
        "realistic class, interpreter": ([PROGRAM], {**realistic, **options(DEVICE_OPTIONS)}, None),
        "realistic class, compiler C1": ([PROGRAM], {**realistic, **compiler}, None),
    }


def steps():
    """What each step brings to the VM's start; then what an archive that does not fit costs."""
    missing = pathlib.Path("/app/missing-archive")
    handed_over = make_archive(missing)
    (missing / "classes.jsa").unlink()
    check = ("/srv/vemo/bin/class-archive", "run")
    found = {  # more of the environment, and through which command
        FIRST_STEP: (shipped_options("first", without=ON_TRIAL), ()),
        "code for a plain processor": (shipped_options("attach", without=["DisableAttachMechanism"]), ()),
        "no attach listener": ({}, ()),
        "our own class archive": (SHIPPED, ()),
        "  through the check whether it fits": ({}, (*check, ARCHIVE)),
        "an archive that is gone, held back by the check": ({}, (*check, missing)),
        "  handed over": (handed_over, ()),
    }
    return {name: ([*through, EMBEDDER], {**OPTIONS_ALONE, **more}, None) for name, (more, through) in found.items()}


def of_each_vm():
    """The request as shipped, by each VM of the machine; the program's own first."""
    found = {}
    for name, vm in {own_vm().name: None, **other_vms()}.items():
        archive = make_archive(pathlib.Path(f"/tmp/class-archive-{name}"), vm)
        found[name] = ([PROGRAM], {**SHIPPED, **archive, **libraries(vm)}, None)
    return found
