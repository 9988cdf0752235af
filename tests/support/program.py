"""Starts the programs as a web server does, inside the device's sandbox, and reads what they did. Texts stand for
bytes, as ISO 8859-1."""

import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import time
from typing import NamedTuple

import logfile

PROGRAM = "/build/setobdconf.cgi"
SETTINGS = pathlib.Path("/app/tarn-belox/runvex/obd.conf")
LOG = pathlib.Path("/tmp/cgi.log")
CALLS = pathlib.Path("/tmp/calls")  # for what the preloaded libraries record
SMALL_DISK = pathlib.Path("/small")  # a file system of 256 KiB; missing where namespaces are refused
OLD_SETTINGS = "[SETTINGS]\nVEMODCanDetectTimeout=100\n"
NEW_SETTINGS = "[SETTINGS]\nVEMODCanDetectTimeout=500\n"
LIMIT = 60  # seconds, then a hanging program is killed
# A folder of another Java VM's; its libjvm.so comes before the one that the programs are linked to. By --java-vm.
JAVA_VM = None

IS_TRACED = os.environ.get("VEMO_SANDBOX") == "proot"


# --- Files

def read(path):
    """Empty when there is no such file."""
    with contextlib.suppress(FileNotFoundError):
        return pathlib.Path(path).read_bytes().decode("latin-1")
    return ""


def write(path, text):
    """Makes the folder too."""
    path = pathlib.Path(path)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(text.encode("latin-1"))


def clear(folder):
    folder.mkdir(parents=True, exist_ok=True)
    folder.chmod(0o755)
    for file in folder.iterdir():
        if file.is_dir() and not file.is_symlink():
            shutil.rmtree(file)
        else:
            file.unlink()


def fill(disk):
    """Uses the room that is left."""
    (disk / "filler").write_bytes(bytes(shutil.disk_usage(disk).free))
    assert shutil.disk_usage(disk).free == 0


def reset_device():
    """The runtime's folder, empty, no log file, no recorded calls."""
    clear(SETTINGS.parent)
    CALLS.unlink(missing_ok=True)
    if LOG.is_dir() and not LOG.is_symlink():
        shutil.rmtree(LOG)
    LOG.unlink(missing_ok=True)


def log_lines():
    """All lines of the log file: statements as "ERROR src/SetObdConf 50 message", others as they are."""
    return logfile.lines(read(LOG))


def statements():
    """Those of the lines that our programs wrote."""
    return [statement.summary() for line in read(LOG).split("\n") if (statement := logfile.parse(line))]


def recorded_calls():
    return read(CALLS).split("\n")[:-1]


def eventually(is_true, limit=20):
    """Whether it becomes true within the limit, in seconds."""
    deadline = time.monotonic() + limit
    while not is_true():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.001)
    return True


# --- Requests

class Request(NamedTuple):
    """A program, with all of its environment and its standard input."""
    words: list
    variables: dict
    body: str = ""

    def having(self, **variables):
        """With these variables; without those that are None."""
        all_variables = {**self.variables, **variables}
        return self._replace(variables={name: text for name, text in all_variables.items() if text is not None})

    def preloading(self, name):
        """With the library standin/preload/NAME.cpp before the program's own."""
        library = f"/build/standin/lib{name}.so"
        # The loader would only warn, and the test would go on without it.
        assert os.path.exists(library), library
        return self.having(LD_PRELOAD=f"{self.variables.get('LD_PRELOAD', '')}:{library}")

    def watched(self, folder):
        """With its file calls in the folder written to CALLS; see standin/preload/FailingFileCalls.cpp."""
        CALLS.unlink(missing_ok=True)
        return self.preloading("failing-file-calls").having(FAILING_FILE_CALLS_FOLDER=str(folder),
                                                            FAILING_FILE_CALLS_TRACE=str(CALLS))

    def by(self, vm):
        """By the "real" Java VM or the "fake" one, which is quick; see standin/preload/FakeVm.cpp."""
        return self.preloading("fake-vm") if vm == "fake" else self


def get(query="", program=PROGRAM):
    """A GET request with the device's class path and no Java options."""
    return Request([program], {"GATEWAY_INTERFACE": "CGI/1.1", "REQUEST_METHOD": "GET", "QUERY_STRING": query,
                               "JAVA_CLASSPATH": "/srv/vemo/java"})


def post(body, content_type="application/x-www-form-urlencoded", program=PROGRAM):
    request = get(program=program).having(REQUEST_METHOD="POST", CONTENT_TYPE=content_type,
                                          CONTENT_LENGTH=str(len(body)))
    return request._replace(body=body)


def post_multipart(fields, program=PROGRAM):
    """`fields` are pairs of a name and a value."""
    body = "".join(f'--frontier\r\nContent-Disposition: form-data; name="{name}"\r\n\r\n{value}\r\n'
                   for name, value in fields)
    return post(body + "--frontier--\r\n", "multipart/form-data; boundary=frontier", program)


class Result(NamedTuple):
    page: str  # standard output
    error: str
    status: int  # minus its number where a signal ended the program


class Process(subprocess.Popen):
    """Killed at the end of its context."""

    def __exit__(self, *error):
        self.kill()
        super().__exit__(*error)


def start(request, **more):
    """The program in the background, a context; `more` as for Popen, preexec_fn for what else the program inherits."""
    variables = {"LD_LIBRARY_PATH": JAVA_VM, **request.variables} if JAVA_VM else request.variables
    environment = {name.encode("latin-1"): text.encode("latin-1") for name, text in variables.items()}
    return Process(request.words, env=environment, **more)


def run(request, **more):
    """The program, to its end."""
    more = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **more}
    with start(request, **more) as process:
        try:
            page, error = process.communicate(request.body.encode("latin-1"), LIMIT)
        except subprocess.TimeoutExpired:
            process.kill()
            page, error = process.communicate()
    return Result((page or b"").decode("latin-1"), (error or b"").decode("latin-1"), process.returncode)


def end(process, number=signal.SIGKILL):
    """Ends a program in the background by the signal; its status as in Result."""
    process.send_signal(number)
    try:
        return process.wait(20)
    except subprocess.TimeoutExpired:
        process.kill()
        return process.wait()


# --- The pages, byte for byte, and what is logged

# The header's newline and the frame's make an empty line, twice.
FRAME_OPENING = """Content-Type: text/html


<!DOCTYPE HTML//EN" "http://www.w3.org/TR/REC-html40/strict.dtd">
<html>
<head>
<meta http-equiv="content-type" content="text/html;charset=iso-8859-1"  />
<meta http-equiv="cache-control" content="no-cache"  />
<title>VEMO Web Server - SetObdConf</title>
<link href="/css/all.css" rel="stylesheet" media="screen"  />
</head>
<body>
<p><img src="/images/kesta.jpg" alt="KESTA AG" align="left"  />\
<img src="/images/tarn.gif" alt="TARN BELOX" align="right"  /></p>
<div style="clear:both" ></div>
"""
CONTENT_OPENING = """<div class="navi" ><a class="small" href="/index.html" >Home</a> / \
<a class="small" href="channeldeviceconfig.cgi" >Device Information</a> / \
<a class="small" href="setobdconf.cgi" >Set CanDetectTimeout</a></div>
<h2>Set CanDetectTimeout</h2>
<div class="content" >
"""
WARNING = """<p class="warn" >Option CanDetectTimeout not set</p><form action="channeldeviceconfig.cgi" >\
<input type="submit" value=" Back " class="mybutton"  /></form>
"""
FRAME_CLOSING = "</body>\n</html>\n"
FRAME_ONLY = FRAME_OPENING + FRAME_CLOSING
WARNING_PAGE = FRAME_OPENING + CONTENT_OPENING + WARNING + FRAME_CLOSING


def success_page(value="500"):
    echo = f"<p>Set CanDetectTimeout to {value} ms.\n"
    success = """</p>Set new option was successful.<br />
To activate the new setting <a href="reboot.cgi" >reboot</a> the device.<p>
</div>
"""
    return FRAME_OPENING + CONTENT_OPENING + echo + success + FRAME_CLOSING


def start_lines(options="(null)", class_path="/srv/vemo/java"):
    """What a request logs until its Java VM is made."""
    return ["DEBUG src/SetObdConf 30 main", "DEBUG src/JavaVmWrapper 73 OpenJavaVM",
            f"DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: {options}",
            f"DEBUG src/JavaVmWrapper 99 JAVA_CLASSPATH:{class_path}"]


REDIRECTION = "DEBUG src/JavaVmWrapper 155 ChangeStdErr"
SUCCESS_LINES = [*start_lines(), REDIRECTION]


# --- What a request has to have done

def expect_success(result, value="500", error=""):
    """It reported success, and standard error got this alone."""
    assert result == (success_page(value), error, 0)


def expect_only_the_frame(result):
    assert (result.page, result.status) == (FRAME_ONLY, 1)
    assert not SETTINGS.exists()


def expect_settings(text):
    """The settings file holds this, and nothing lies beside it."""
    assert read(SETTINGS) == text
    assert [file.name for file in SETTINGS.parent.iterdir()] == [SETTINGS.name]
