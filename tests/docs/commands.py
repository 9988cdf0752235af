"""Runs the commands of README.md, CONTRIBUTING.md, docs/ and the manual pages, each as it stands there.

    python3 -B -m pytest tests/docs/commands.py --build BUILD -k "test_installed and curl"

RULES says for each command where it runs and how its success is seen; a command without a rule
fails, and a rule without a command. Commands are the lines of code blocks, and what stands in a sentence
`like this` and begins with a program. Lines of a block that set variables go before those that follow them.
"""

import dataclasses
import os
import pathlib
import re
import shlex
import shutil
import subprocess

import pytest

import root
from root import SOURCE

SECONDS = 300  # for one command, on a host that may be busy
PLACES = {
    "checkout": "a copy of the checkout, with the build folders that ./test leaves",
    "device": "the stand-in device's sandbox, in that copy",
    "root": "the bare root: the rules of this place run in their order, each leaves what the next finds",
    "beside": "the machine around the bare root, in the root's network",
    "development": "a bare root with the dev package, by tests/packaging/example.py",
    "machine": "the booted machine, by tests/machine/installed.py",
    "elsewhere": "another test runs the same words: `test`, a file that holds `says`",
    "test": "it is a script that ctest runs as a test",
    "nowhere": "it is no command",
}


@dataclasses.dataclass(frozen=True)
class Rule:
    pattern: str  # of the whole command
    place: str
    says: str = ""  # a pattern of its output
    status: int = 0
    prepare: str = ""  # done before it, by the same shell
    after: str = ""  # must succeed behind it
    stdin: str = ""
    until: str = ""  # it would take long, or never end: it is ended when this succeeds, $OUT being its output
    test: str = ""  # of "elsewhere"
    layer: str = ""  # shared with others of this name, in the place of its block's


PASSED = r"\n[1-9]\d* passed, 0 failed, \d+ skipped\n"
SAYS = 'grep -qE "%s" "$OUT"'
REQUESTED = "grep -qs . %s"  # a log with a line: the program ran

RULES = [
    Rule(r".*[─│].*|\d{4}-.*  DEBUG .*|add_page\(.*|-(XX|z).*|cmake --install", "nowhere"),

    # ./test meets a ctest that runs a few tests when it is told none: this one is among the others.
    Rule(r"(VEMO_SANDBOX_KIND=proot )?\./test( -R SetOptionPage| --long| --verbose)?", "checkout",
         says=PASSED, layer="test"),
    Rule(r"\./test --help", "checkout", says=r"\AUsage: \./test "),
    Rule(r"\./test -R power_cut", "elsewhere", test="tests/machine/CMakeLists.txt",
         says="add_test(NAME power_cut.${name}"),
    Rule(r"\./test --rerun-failed", "checkout", says=PASSED, layer="test",
         prepare="for tree in build build-clang; do mkdir -p $tree/Testing/Temporary; ctest --test-dir $tree -N |"
                 " sed -n 's/^ *Test *#\\([0-9]*\\): /\\1:/p' >$tree/Testing/Temporary/LastTestsFailed.log; done"),
    Rule(r"tools/test-in-bare-root", "elsewhere", test=".ci/run", says="tools/test-in-bare-root"),
    # Its log begins with the first request.
    Rule(r"\./run( --port 8081)?", "checkout", prepare="rm -rf build/state",
         until=SAYS % "^The device's web interface: .*:80(80|81)/" + " && ! test -e build/state/tmp/cgi.log"),
    Rule(r"\./package", "elsewhere", test="tests/packaging/root.py", says='SOURCE / "package"'),
    Rule(r"standin/sandbox build --state build/state -- \S*toggle-device-allocation", "checkout",
         prepare="./run >build/run.log & for i in {1..1000}; do ! grep -qs Ctrl-C build/run.log || break;"
                 " sleep 0.1; done",
         says="(?i)alloc"),

    Rule(r"cmake -S \. -B build .*&& cmake --build build|cmake --build build", "checkout", says="ninja|Linking"),
    Rule(r"cmake -S \. -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF .*", "checkout",
         says="have been written to"),
    Rule(r"DESTDIR=\S+ cmake --install build --component program", "checkout",
         after="readelf -d staging/usr/libexec/vemo-web/setobdconf.cgi | grep -F [/opt/jre/lib/server]"
               " && pytest-3 tests/packaging/staged.py --staged staging"),

    Rule(r"git tag v1\.0\.1", "elsewhere", test="tests/packaging/version.py", says='git("tag", f"v{VERSION}")'),
    Rule(r"tools/package-version", "checkout", says=r"\A\d+\.\d+\.\d+"),
    Rule(r"git diff .*clang-format -i", "checkout",
         prepare="rm -rf .git; git init -q; git add src .clang-format; git -c user.name=n"
                 " -c user.email=e@example.org commit -qm All; sed -i 's/^int main/int   main/' src/SetObdConf.cpp",
         after="git diff --quiet"),
    Rule(r"cmake --preset release && ninja -C build", "checkout", says="have been written to"),
    Rule(r"build/tests/hostile_tests .*", "checkout", until=SAYS % "^[0-9]+ stored"),
    Rule(r"tests/in-sandbox build program/\S+ -k \w+", "checkout", says=r"= [1-9]\d* passed"),
    Rule(r"build/tests/\w+ (--java-vm=\S+ )?--gtest_filter=.*", "checkout", says=r"\[  PASSED  \] [1-9]"),
    Rule(r"tools/make-java-runtime build/java-runtime build/device/java", "checkout",
         after="test -s build/java-runtime/lib/server/classes.jsa"),

    Rule(r"tools/unpack-packages build/web-servers nginx fcgiwrap", "checkout",
         after="test -x build/web-servers/usr/sbin/nginx"),
    Rule(r"ctest --test-dir build .* -R web_servers\.nginx", "checkout", says="100% tests passed"),
    Rule(r"standin/sandbox build .* -m pytest /source/tests/web/.*", "checkout", says=r"\b1 passed"),

    # What is built for Arm is there already.
    Rule(r"\./package arm64 armhf", "elsewhere", test="tests/packaging/root.py", says='SOURCE / "package"'),
    Rule(r"cmake --preset arm64 && cmake --build --preset arm64", "checkout",
         until=SAYS % r"^\[3/[0-9]+\]|no work to do"),
    Rule(r"tests/arm/build armhf", "checkout", after="test -x build-armhf/setobdconf.cgi"),
    Rule(r"tests/arm/run armhf -- .*", "checkout", says=r"\[  PASSED  \] [1-9]"),
    Rule(r"cmake --preset debug && cmake --build --preset debug", "checkout", until=SAYS % r"^\[3/[0-9]+\]"),
    # The debug build takes long: the other one stands in its place.
    Rule(r"\$sandbox gdb --args \S+", "checkout", prepare="rm -rf build-debug; ln -s build build-debug",
         stdin="run --gtest_filter=PropertiesIni.*\nquit\n", says=r"\[  PASSED  \] [^\0]*exited normally"),
    Rule(r"\$sandbox valgrind \S+", "checkout", prepare="rm -rf build-debug; ln -s build build-debug",
         until=SAYS % r"\[       OK \]"),

    Rule(r"tests/fuzz/run build-clang 3600", "checkout", until=SAYS % "^#[0-9]+.*INITED"),
    Rule(r"python3 -B tests/machine/floor\.py build search", "checkout", prepare="rm -f build/machine/floor.disk",
         until="test -s build/machine/floor.disk"),
    Rule(r"(python3 -B|pytest-3) tests/(packaging|docs|machine|arm|vms)/\w+\.py(::\w+)?( [\w-]+)*", "test"),
    Rule(r"tools/make-readme-pictures", "checkout", says="All pages: "),
    Rule(r"\./bench/run( --vms)?", "checkout", prepare="rm -rf build/bench-state",
         until=REQUESTED % "build/bench-state/tmp/cgi.log"),
    Rule(r"\./bench/run --keep", "checkout",
         prepare="mkdir -p build/bench-results; cp docs/images/{growth,timeline}.png bench/instructions.json"
                 " build/bench-results; echo kept >build/bench-results/results.txt",
         after="grep -qx kept docs/speed-results.txt"),
    Rule(r"\./bench/profile", "checkout", until='compgen -G "$TMPDIR/*/samples"'),
    Rule(r"time /srv/vemo/htdocs/setobdconf\.cgi >/dev/null", "device", status=1, says=r"\nreal\s"),
    Rule(r"/srv/vemo/make-class-archive .* /app/class-archive", "device", after="test -s /app/class-archive/record"),
    Rule(r"/srv/vemo/bin/class-archive fits /app/class-archive", "device", status=1, says="class-archive: "),

    Rule(r"apt-get install gdb", "root", prepare="export APT_CONFIG=/root/simulate", says=r"\nInst gdb "),
    Rule(r"apt install --no-install-recommends nftables \./build/packages/\S+ \./build/packages/\S+", "root",
         says="Setting up vemo-web-standin"),
    Rule(r"setpriv --reuid vemo-web .*setobdconf\.cgi", "root", status=1, says="Option CanDetectTimeout not set"),
    # Nothing is booted here: the services are started by hand.
    Rule(r"vemo-web-check", "root",
         prepare="{ /usr/libexec/vemo-web/nvm-service & install -d -o vemo-web /run/vemo-web;"
                 " setpriv --reuid=vemo-web --regid=vemo-web --clear-groups --reset-env /usr/sbin/lighttpd -D"
                 " -f /usr/share/vemo-web/lighttpd.conf & } >/dev/null 2>&1 </dev/null;"
                 " for i in {1..100}; do (: >/dev/tcp/127.0.0.1/8080) 2>/dev/null && break; sleep 0.1; done",
         says=r"\A(ok .*\n|risky  port 80 .*\n.*\n)*\Z"),
    Rule(r"vemo-web-check \| grep -v \^ok", "root", says=r"\AWRONG  VM options .*\n +-> chmod a\+r ",
         prepare="chmod 600 /etc/vemo-web/java.options", after="chmod 644 /etc/vemo-web/java.options"),
    Rule(r"df /app/tarn-belox/runvex", "root", says="Use%"),
    Rule(r"curl -d CanDetectTimeout=500 \S+", "beside", says="Set new option was successful"),
    Rule(r"apt install --no-install-recommends nftables \./vemo-web_\*\.deb", "root", says="Setting up vemo-web ",
         prepare="dpkg --remove vemo-web-standin vemo-web; cd build/packages"),
    Rule(r"apt install --no-install-recommends .*vemo-web-dev_\S+ .*", "development", says="Setting up vemo-web-dev "),
    Rule(r"cp -r /usr/share/doc/vemo-web-dev/examples page", "development", after="test -f page/Name.cpp"),
    Rule(r"cmake -S page -B page/build", "development", says="have been written to"),
    Rule(r"cmake --build page/build", "development", after="test -x page/build/name.cgi"),
    Rule(r"install page/build/uptime\.cgi /usr/share/vemo-web/htdocs", "development"),
    Rule(r"systemctl cat vemo-web", "machine", prepare="export SYSTEMD_PAGER=cat", says="^ProcSubset=pid"),
    Rule(r"lighty-enable-mod vemo-web", "root", says="Enabling vemo-web: ok"),
    Rule(r"sed -i .*web-server\.conf", "root",
         after=r"""grep -Fx 'server.bind = "192.168.7.1"' /etc/vemo-web/web-server.conf"""
               r""" && grep -Fx 'var.vemo_hosts = "192\.168\.7\.1"' /etc/vemo-web/web-server.conf"""),
    Rule(r"apt purge vemo-web vemo-web-standin", "root", says="Purging configuration files for vemo-web "),

    Rule(r"cp -r \S+/web-servers /etc/vemo-web", "elsewhere", test="tests/machine/installed.py",
         says="cp -r /usr/share/vemo-web/web-servers /etc/vemo-web; "),
    Rule(r"install -D -m 0644 \S+/apache2\.service\.conf \S+", "elsewhere", test="tests/machine/installed.py",
         says="install -D -m 0644 /etc/vemo-web/web-servers/{name}.service.conf {unit}; "),
    Rule(r"rm -r /etc/vemo-web/web-servers \S+", "elsewhere", test="tests/machine/installed.py",
         says="rm -r /etc/vemo-web/web-servers {unit}; systemctl daemon-reload; systemctl restart vemo-web"),
    Rule(r"systemctl daemon-reload", "elsewhere", test="tests/machine/installed.py",
         says="systemctl daemon-reload; systemctl restart vemo-web; "),
    Rule(r"journalctl -u vemo-web", "machine", prepare="export SYSTEMD_PAGER=cat", says="Started "),
    Rule(r"systemctl enable --now lighttpd", "machine",
         after="systemctl is-active lighttpd && systemctl disable --now lighttpd"),
    Rule(r"systemctl restart vemo-web", "machine", after="systemctl is-active vemo-web"),
    Rule(r"systemctl enable --now vemo-web-reboot\.socket", "machine",
         after="systemctl is-active vemo-web-reboot.socket && test -p /run/vemo-web-reboot"),
    Rule(r"systemctl disable --now vemo-web-reboot\.socket", "machine",
         after="! systemctl is-active vemo-web-reboot.socket && test ! -e /run/vemo-web-reboot"),
    Rule(r"systemctl start vemo-web-log", "machine"),
    Rule(r"systemd-analyze security vemo-web", "machine", says="Overall exposure level for vemo-web.service: 1.7"),
    Rule(r"systemctl edit vemo-web", "machine",
         prepare=r"printf '#!/bin/sh\nsed -i \"2a [Service]\\\\nIPAddressAllow=10.0.2.0/24\" \"$1\"\n' >/run/editor;"
                 " chmod +x /run/editor; export SYSTEMD_EDITOR=/run/editor",
         after="systemctl show -p IPAddressAllow vemo-web | grep -F 10.0.2.0 && systemctl revert vemo-web"),
]


@dataclasses.dataclass(frozen=True)
class Command:
    page: str
    text: str
    setup: str = ""  # the lines of its block before it that set variables
    block: int = 0  # of its page; 0 in a sentence


def block_lines(text):
    """The commands of a code block; a line that ends in a backslash goes on."""
    return [line.strip() for line in re.sub(r"\\\n\s*", "", text).splitlines() if line.strip()]


def is_program(word):
    """Whether a sentence's `word ...` is a command."""
    file = SOURCE / word
    return (shutil.which(word, path="/usr/sbin:/usr/bin:/sbin:/bin") is not None or word == "vemo-web-check"
            or word.startswith("/srv/vemo/") or ("/" in word and file.is_file() and os.access(file, os.X_OK)))


def commands_of(page, blocks, sentences):
    for number, block in enumerate(blocks, 1):
        setup = []
        for line in block_lines(block):
            without_comment = re.sub(r"\s+#\s.*$", "", line)
            if re.fullmatch(r"export .*|\w+=(\"[^\"]*\"|\S*)", without_comment):
                setup.append(line)
            else:
                yield Command(page, without_comment, "\n".join(setup), number)
    for text in re.findall(r"`([^`]+)`", sentences):
        words = text.split()
        first = next((word for word in words if not re.match(r"\w+=", word)), "")
        alone = words[:1] == words and not first.startswith(("./", "tools/"))
        if words and not alone and is_program(first):
            yield Command(page, " ".join(words))


def pages():
    """All commands, in the order of the pages."""
    for path in (SOURCE / "README.md", SOURCE / "CONTRIBUTING.md", *sorted((SOURCE / "docs").glob("*.md"))):
        text = path.read_text(encoding="utf-8")
        # Of a program's text, ```cpp, nothing is typed.
        text = re.sub(r"(?m)^```cpp\n(?:.*\n)*?```$", "", text)
        block = re.compile(r"(?m)^```\w*\n(?P<fenced>(?:.*\n)*?)```$|(?<=\n\n)(?P<indented>(?: {4}.*\n|\n(?= {4}))+)")
        blocks = [found["fenced"] or found["indented"] for found in block.finditer(text)]
        yield from commands_of(path.relative_to(SOURCE).as_posix(), blocks, block.sub("", text))
    for path in sorted((SOURCE / "packaging/man").glob("*.in")):
        text = path.read_text(encoding="utf-8").replace(r"\e", "\\")
        for name, folder in (("SHARED", "/usr/share/vemo-web"), ("SETTINGS", "/etc/vemo-web"),
                             ("PROGRAMS", "/usr/libexec/vemo-web")):
            text = text.replace(f"@VEMO_{name}@", folder)
        blocks = re.findall(r"(?s)\.Bd -literal.*?\n(.*?)\.Ed", text)
        yield from commands_of(path.relative_to(SOURCE).as_posix(), blocks, "")


def rule_of(command):
    return next((rule for rule in RULES if re.fullmatch(rule.pattern, command.text)), None)


def commands_in(place):
    """Commands of a place with their rules, those of one block behind one another, none twice; where one leaves
    what the next finds, in the order of the rules."""
    found = {}
    for command in pages():
        rule = rule_of(command)
        if rule and rule.place in place:
            found.setdefault((command.text, command.setup), (command, rule))
    pairs = list(found.values())
    if "root" in place:
        pairs.sort(key=lambda pair: RULES.index(pair[1]))
    return pairs


def script(command, rule):
    """For bash: the command as it stands, between what its rule wants before and behind it."""
    lines = [rule.prepare, command.setup, command.text]
    if rule.until:
        # With this shell ends all that runs in its namespaces.
        lines = [rule.prepare, f"seen() {{ {{ {rule.until}; }} >/dev/null; }}",
                 f"{{ {command.setup}\n{command.text}\n}} & job=$!", f"while ((SECONDS < {SECONDS})); do",
                 "  ! seen || exit 0",
                 '  kill -0 "$job" || { ! seen || exit 0; wait "$job"; echo "it ended by itself, with $?"; exit 99; }',
                 "  sleep 0.2", "done", "exit 98"]
    if rule.after:
        lines += ["status=$?", f"{{ {rule.after}; }} || {{ echo 'not seen: ' {shlex.quote(rule.after)}; exit 97; }}",
                  'exit "$status"']
    return "\n".join(lines)


def of_places(*places):
    """A parameter for each command that runs there, with its rule."""
    return pytest.mark.parametrize("command, rule", [
        pytest.param(command, rule, id=f"{command.page}: {command.text}") for command, rule in commands_in(places)])


def expect(rule, status, output):
    assert status == rule.status, output[-3000:]
    assert re.search(f"(?m){rule.says}", output), output[-3000:]


class TestListed:
    """Whether none is left out."""

    @pytest.mark.parametrize("command", pages(), ids=lambda command: f"{command.page}: {command.text}")
    def test_each_command_has_a_rule(self, command):
        assert rule_of(command), "no rule of tests/docs/commands.py runs it"

    @pytest.mark.parametrize("rule", RULES, ids=lambda rule: rule.pattern)
    def test_each_rule_has_commands_which_run_where_it_says(self, rule):
        commands = [command for command in pages() if rule_of(command) == rule]
        assert commands, "no page has such a command"
        assert rule.place in PLACES
        if rule.place == "elsewhere":
            assert rule.says in (SOURCE / rule.test).read_text(encoding="utf-8")
        if rule.place == "test":
            tests = "".join(file.read_text(encoding="utf-8") for pattern in ("CMakeLists.txt", "*.cmake")
                            for file in (SOURCE / "tests").rglob(pattern))
            for command in commands:
                name = re.search(r"(\w+)\.py", command.text)[0]
                assert re.search(rf"[ /]{re.escape(name)}\b", tests), command.text


# --- In the checkout


class Layers:
    """Above this checkout, at its place, since build folders know theirs; what a block leaves there is there for its
    next line, and gone with it. Nobody else's ports are in the way."""

    # ./test meets a ctest that runs a few tests when it is told none.
    CTEST = """#!/bin/sh
case " $* " in *" -R "*) exec {ctest} "$@" ;; esac
exec {ctest} "$@" -R "SetOptionPage|IsIp4Address"
"""

    def __init__(self, folder):
        self.folder = folder
        laid = subprocess.run(["unshare", "--mount", "sh", "-c", self.laying("probe")], stderr=subprocess.PIPE,
                              text=True, check=False)
        if laid.returncode != 0:
            pytest.skip(f"no layer can be laid above the checkout: {laid.stderr.strip()}")
        ctest = folder / "bin/ctest"
        ctest.parent.mkdir()
        ctest.write_text(self.CTEST.format(ctest=shutil.which("ctest")), encoding="utf-8")
        ctest.chmod(0o755)

    def laying(self, name):
        """For sh: lays the layer of that name, made when it is new."""
        layer = self.folder / name
        for part in ("upper", "work"):
            (layer / part).mkdir(parents=True, exist_ok=True)
        folders = f"lowerdir={SOURCE},upperdir={layer}/upper,workdir={layer}/work"
        return shlex.join(["mount", "-t", "overlay", "overlay", "-o", folders, str(SOURCE)])

    def run(self, name, text, stdin):
        """Status and output."""
        mount = (f"{self.laying(name)} && mount -t tmpfs tmpfs /dev/shm && ip link set lo up"
                 f" && cd {shlex.quote(str(SOURCE))} && exec bash -c \"$0\"")
        with open(self.folder / "output", "w+", encoding="utf-8", errors="replace") as output:
            environment = {**os.environ, "PATH": f"{self.folder}/bin:{os.environ['PATH']}", "OUT": output.name,
                           "TMPDIR": str(self.folder)}
            try:
                status = subprocess.run(
                    ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--mount-proc",
                     "sh", "-c", mount, text], input=stdin, stdout=output, stderr=subprocess.STDOUT, text=True,
                    check=False, timeout=SECONDS + 30, env=environment).returncode
            except subprocess.TimeoutExpired:
                status = "none in time"
            output.seek(0)
            return status, output.read()


@pytest.fixture(scope="module")
def layers(build, tmp_path_factory):
    if reason := root.why_not():
        pytest.skip(reason)
    layers = Layers(tmp_path_factory.mktemp("layers"))
    # Some of the commands go on with these, and there is no network.
    root.packages(build)
    root.bare_archive(build)
    return layers


@of_places("checkout", "device")
def test_in_the_checkout(layers, command, rule):
    text = script(command, rule)
    if rule.place == "device":
        text = ("mkdir -p build/commands/app build/commands/tmp; exec standin/sandbox build"
                f" --state build/commands --private-network -- bash -c {shlex.quote(text)}")
    expect(rule, *layers.run(rule.layer or f"{pathlib.Path(command.page).stem}-{command.block}", text, rule.stdin))


# --- In a bare root that is not booted


@pytest.fixture(scope="module")
def device(build):
    if reason := root.why_not():
        pytest.skip(reason)
    with root.Root(build, "Commands") as device:
        packages = device.file("/root/build/packages")
        packages.mkdir(parents=True)
        for file in root.packages(build).values():
            shutil.copy(file, packages)
        # Who types the commands says yes.
        options = 'APT::Get::Assume-Yes "true"; APT::Sandbox::User "root";\n'
        device.file("/etc/apt/apt.conf.d/commands").write_text(options, encoding="utf-8")
        device.file("/root/simulate").write_text(options + 'APT::Get::Simulate "true";\n', encoding="utf-8")
        yield device


@of_places("root", "beside")
def test_installed(device, command, rule):
    text = script(command, rule)
    if rule.place == "root":
        output = device.run("bash", "-c", f"cd /root; {text}\nexit", status=rule.status)
    else:
        output = device.run_beside("bash", "-c", text, status=rule.status)
    expect(rule, rule.status, output)
