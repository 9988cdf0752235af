"""Runs the commands of README.md, CONTRIBUTING.md, docs/ and the manual pages, each as it stands there.

    python3 -B -m pytest tests/docs/commands.py --build BUILD -k "installed and curl"

RULES says for each command where it runs and how its success is seen; a command without a rule fails, and a rule
without a command. Commands are the lines of code blocks, and what stands in a sentence `like this` and begins with a
program. Lines of a block that set variables go before those that follow them.
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
from installed_device import Device
from root import SOURCE

SECONDS = 300  # for one command, on a host that may be busy


@dataclasses.dataclass(frozen=True)
class Rule:
    pattern: str  # of the whole command
    says: str = ""  # a pattern of its output
    status: int = 0
    prepare: str = ""  # done before it, by the same shell
    after: str = ""  # must succeed behind it
    stdin: str = ""
    until: str = ""  # it would take long, or never end: it is ended when this succeeds, $OUT being its output
    layer: str = ""  # shared with others of this name, in the place of its block's
    of: str = ""  # "elsewhere": the files of those tests. "checkout": device, its sandbox. "root": beside it


PASSED = r"\n[1-9]\d* passed, 0 failed, \d+ skipped\n"
DEBUG_BUILD = "rm -rf build-debug; ln -s build build-debug"  # which takes long: the other one stands in its place
SAYS = 'grep -qE "%s" "$OUT"'
REQUESTED = "grep -qs . %s"  # a log with a line: the program ran

RULES = {
    "no command": [Rule(r".*[─│].*|\d{4}-.*  DEBUG .*|add_page\(.*|-(XX|z).*|cmake --install")],

    # A copy of the checkout, with the build folders that ./test leaves: what is built for Arm is there already.
    "checkout": [
        # These have tests of their own: that they end with 0 is enough.
        Rule(r"cmake (-S \. -B|--build) build\b.*|cmake --preset release && ninja -C build|tests/arm/build armhf"
             r"|\./test --help|tools/(package-version|make-readme-pictures)"
             r"|tools/(make-java-runtime|unpack-packages) build/.*"),
        # ./test meets a ctest that runs a few tests when it is told none: this one is among the others.
        Rule(r"(VEMO_SANDBOX_KIND=proot )?\./test( -R SetOptionPage| --long| --verbose)?", PASSED, layer="test"),
        Rule(r"\./test --rerun-failed", PASSED, layer="test",
             prepare="for tree in build build-clang; do mkdir -p $tree/Testing/Temporary; ctest --test-dir $tree -N |"
                     r" sed -n 's/^ *Test *#\([0-9]*\): /\1:/p' >$tree/Testing/Temporary/LastTestsFailed.log; done"),
        # Its log begins with the first request.
        Rule(r"\./run( --port 8081)?", prepare="rm -rf build/state",
             until=SAYS % "^The device's web interface: .*:80(80|81)/" + " && ! test -e build/state/tmp/cgi.log"),
        Rule(r"standin/sandbox build --state build/state -- \S*toggle-device-allocation", "(?i)alloc",
             prepare="./run >build/run.log & for i in {1..1000}; do ! grep -qs Ctrl-C build/run.log || break;"
                     " sleep 0.1; done"),
        Rule(r"DESTDIR=\S+ cmake --install build --component program",
             after="readelf -d staging/usr/libexec/vemo-web/setobdconf.cgi | grep -F [/opt/jre/lib/server]"
                   " && ! test -e staging/usr/etc"
                   " && pytest-3 tests/packaging/staged.py --staged staging"),
        Rule(r"git diff .*clang-format -i", after="git diff --quiet",
             prepare="rm -rf .git; git init -q; git add src .clang-format;"
                     " git -c user.name=n -c user.email=e@example.org commit -qm All;"
                     " sed -i 's/^int main/int   main/' src/SetObdConf.cpp"),
        Rule(r"tests/in-sandbox build (program|hostile)/\S+ (-k \w+|--java-vm \S+).*", r"= [1-9]\d* passed"),
        Rule(r"build/tests/\w+ --gtest_filter=\S+", r"\[  PASSED  \] [1-9]"),
        Rule(r"ctest --test-dir build .* -R web_servers\.nginx", "100% tests passed"),
        Rule(r"standin/sandbox build .* -m pytest /source/tests/web/.*", r"\b1 passed"),
        Rule("cmake --preset arm64 && cmake --build --preset arm64", until=SAYS % r"^\[[1-9]|no work to do"),
        Rule(r"tests/arm/run armhf -- .*", r"\[  PASSED  \] [1-9]"),
        Rule("cmake --preset debug && cmake --build --preset debug", until=SAYS % r"^\[3/[0-9]+\]"),
        Rule(r"\$sandbox gdb --args \S+", r"\[  PASSED  \] [^\0]*exited normally", prepare=DEBUG_BUILD,
             stdin="run --gtest_filter=PropertiesIni.*\nquit\n"),
        Rule(r"\$sandbox valgrind \S+", prepare=DEBUG_BUILD, until=SAYS % r"\[       OK \]"),
        Rule("tests/fuzz/run build-clang 3600", until=SAYS % "^#[0-9]+.*INITED"),
        Rule(r"/usr/bin/python3 -B tests/machine/floor\.py build search", prepare="rm -f build/machine/floor.disk",
             until="test -s build/machine/floor.disk"),
        Rule(r"\./bench/run( --vms)?", prepare="rm -rf build/bench-state",
             until=REQUESTED % "build/bench-state/tmp/cgi.log"),
        Rule(r"\./bench/run --keep", after="grep -qx kept docs/speed-results.txt",
             prepare="mkdir -p build/bench-results; cp docs/images/{growth,timeline}.png bench/instructions.json"
                     " build/bench-results; echo kept >build/bench-results/results.txt"),
        Rule(r"\./bench/profile", until='compgen -G "$TMPDIR/*/samples"'),
        Rule(r"time /srv/vemo/htdocs/setobdconf\.cgi >/dev/null", r"\nreal\s", status=1, of="device"),
        Rule(r"/srv/vemo/make-class-archive .* /app/class-archive", after="test -s /app/class-archive/record",
             of="device"),
        Rule("/srv/vemo/bin/class-archive fits /app/class-archive", "class-archive: ", status=1, of="device"),
    ],

    # Other tests run the same words, in files of that pattern. `says`: what these hold; without it the command.
    "elsewhere": [
        Rule(r"(?:python3 -B|pytest-3) tests/(?:packaging|docs|machine|arm|scripts)/(\w+\.py).*", r"\1",
             of="tests/*/CMakeLists.txt"),
        Rule(r"\./test -R power_cut", "NAME power_cut.", of="tests/machine/CMakeLists.txt"),
        Rule("tools/test-in-bare-root", of=".ci/run"),
        Rule(r"\./package( arm64 armhf)?", 'SOURCE / "package"', of="tests/packaging/root.py"),
        Rule(r"git tag v1\.0\.1", 'git("tag", f"v{VERSION}")', of="tests/packaging/version.py"),
        Rule(r"cp -r \S+/web-servers /etc/vemo-web|systemctl daemon-reload", of="tests/machine/*.py"),
        Rule(r"(install -D -m 0644 \S+/)apache2(\.service\.conf) \S+", r"\1{name}\2 {unit}", of="tests/machine/*.py"),
        Rule(r"(rm -r /etc/vemo-web/web-servers )\S+", r"\1{unit}", of="tests/machine/*.py"),
    ],

    # A bare root: in this order, each leaves what the next finds. Some run beside it, in its network.
    "root": [
        Rule("apt-get install gdb", r"\nInst gdb ", prepare="export APT_CONFIG=/root/simulate"),
        Rule(r"apt install --no-install-recommends nftables \./build/packages/\S+ \./build/packages/\S+",
             "Setting up vemo-web-standin"),
        Rule(r"setpriv --reuid vemo-web .*setobdconf\.cgi", "Option CanDetectTimeout not set", status=1),
        # Nothing is booted here: the services are started by hand.
        Rule("vemo-web-check", r"\A(ok .*\n|risky  port 80 .*\n.*\n)*\Z",
             prepare="{ /usr/libexec/vemo-web/nvm-service & install -d -o vemo-web /run/vemo-web;"
                     " setpriv --reuid=vemo-web --regid=vemo-web --clear-groups --reset-env /usr/sbin/lighttpd -D"
                     " -f /usr/share/vemo-web/lighttpd.conf & } >/dev/null 2>&1 </dev/null;"
                     " for i in {1..100}; do (: >/dev/tcp/127.0.0.1/8080) 2>/dev/null && break; sleep 0.1; done"),
        Rule(r"vemo-web-check \| grep -v \^ok", r"\AWRONG  VM options .*\n +-> chmod a\+r ",
             prepare="chmod 600 /etc/vemo-web/java.options", after="chmod 644 /etc/vemo-web/java.options"),
        Rule("df /app/tarn-belox/runvex", "Use%"),
        Rule(r"curl -d CanDetectTimeout=500 \S+", "Set new option was successful", of="beside"),
        Rule(r"apt install --no-install-recommends nftables \./vemo-web_\*\.deb", "Setting up vemo-web ",
             prepare="dpkg --remove vemo-web-standin vemo-web; cd build/packages"),
        Rule("lighty-enable-mod vemo-web", "Enabling vemo-web: ok"),
        Rule(r"sed -i .*web-server\.conf",
             after=r"""grep -Fx 'server.bind = "192.168.7.1"' /etc/vemo-web/web-server.conf"""
                   r""" && grep -Fx 'var.vemo_hosts = "192\.168\.7\.1"' /etc/vemo-web/web-server.conf"""),
        Rule("apt purge vemo-web vemo-web-standin", "Purging configuration files for vemo-web "),
    ],

    # A bare root with the dev package: tests/packaging/packages.py.
    "development": [
        Rule(r"apt install .* \./vemo-web-dev_.*|cp -r \S+/vemo-web-dev/examples page|cmake -S page -B page/build"
             r"|cmake --build page/build|install page/build/uptime\.cgi \S+"),
    ],

    # The booted machine: tests/machine/installed.py.
    "machine": [
        Rule("systemctl cat vemo-web", "^ProcSubset=pid", prepare="export SYSTEMD_PAGER=cat"),
        Rule("journalctl -u vemo-web", "Started ", prepare="export SYSTEMD_PAGER=cat"),
        Rule("systemctl enable --now lighttpd",
             after="systemctl is-active lighttpd && systemctl disable --now lighttpd"),
        Rule("systemctl restart vemo-web", after="systemctl is-active vemo-web"),
        Rule(r"systemctl enable --now vemo-web-reboot\.socket",
             after="systemctl is-active vemo-web-reboot.socket && test -p /run/vemo-web-reboot"),
        Rule(r"systemctl disable --now vemo-web-reboot\.socket",
             after="! systemctl is-active vemo-web-reboot.socket && test ! -e /run/vemo-web-reboot"),
        Rule("systemctl start vemo-web-log"),
        Rule("systemd-analyze security vemo-web", "Overall exposure level for vemo-web.service: 1.7"),
        Rule("systemctl edit vemo-web",
             prepare=r"printf '#!/bin/sh\nsed -i \"2a [Service]\\\\nIPAddressAllow=10.0.2.0/24\" \"$1\"\n'"
                     " >/run/editor; chmod +x /run/editor; export SYSTEMD_EDITOR=/run/editor",
             after="systemctl show -p IPAddressAllow vemo-web | grep -F 10.0.2.0 && systemctl revert vemo-web"),
    ],
}


@dataclasses.dataclass(frozen=True)
class Command:
    page: str
    text: str
    setup: str = ""  # the lines of its block before it that set variables
    block: int = 0  # of its page; 0 in a sentence

    def __str__(self):
        return f"{self.page}: {self.text}"


def is_program(word):
    """Whether a sentence's `word ...` is a command."""
    file = SOURCE / word
    return (shutil.which(word, path="/usr/sbin:/usr/bin:/sbin:/bin") is not None or word == "vemo-web-check"
            or word.startswith("/srv/vemo/") or ("/" in word and file.is_file() and os.access(file, os.X_OK)))


def commands_of(page, blocks, sentences):
    for number, block in enumerate(blocks, 1):
        setup = []
        # A line that ends in a backslash goes on.
        for line in map(str.strip, re.sub(r"\\\n\s*", "", block).splitlines()):
            text = re.sub(r"\s+#\s.*$", "", line)
            if re.fullmatch(r"export .*|\w+=(\"[^\"]*\"|\S*)", text):
                setup.append(line)
            elif text:
                yield Command(page, text, "\n".join(setup), number)
    for text in re.findall(r"`([^`]+)`", sentences):
        words = text.split()
        first = next((word for word in words if not re.match(r"\w+=", word)), "")
        alone = words[:1] == words and not first.startswith(("./", "tools/"))
        if words and not alone and is_program(first):
            yield Command(page, " ".join(words))


def pages():
    """All commands, in the order of the pages."""
    for path in (SOURCE / "README.md", SOURCE / "CONTRIBUTING.md", *sorted((SOURCE / "docs").glob("*.md"))):
        # Of a program's text, ```cpp, nothing is typed.
        text = re.sub(r"(?m)^```cpp\n(?:.*\n)*?```$", "", path.read_text(encoding="utf-8"))
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
    return next((rule for rules in RULES.values() for rule in rules if re.fullmatch(rule.pattern, command.text)), None)


def commands_in(place):
    """Commands of a place with their rules, those of one block behind one another, none twice; where one leaves
    what the next finds, in the order of the rules."""
    rules, found = RULES[place], {}
    for command in pages():
        rule = rule_of(command)
        if rule in rules:
            found.setdefault((command.text, command.setup), (command, rule))
    if place == "root":
        return sorted(found.values(), key=lambda pair: rules.index(pair[1]))
    return list(found.values())


def script(command, rule):
    """For bash: the command as it stands, between what its rule wants before and behind it."""
    lines = [rule.prepare, command.setup, command.text]
    if rule.until:
        # With this shell ends all that runs in its namespaces.
        lines = [rule.prepare, f"seen() {{ {{ {rule.until}; }} >/dev/null; }}",
                 f"{{ {command.setup}\n{command.text}\n}} & job=$!",
                 'until seen || ! kill -0 "$job"; do sleep 0.2; done', "seen"]
    if rule.after:
        lines += ["status=$?", f"{{ {rule.after}; }} || {{ echo 'not seen: ' {shlex.quote(rule.after)}; exit 97; }}",
                  'exit "$status"']
    return "\n".join(lines)


def commands_of_place(place):
    """A parameter for each."""
    return pytest.mark.parametrize("command, rule", commands_in(place), ids=str)


def expect(rule, status, output):
    assert status == rule.status, output[-3000:]
    assert re.search(f"(?m){rule.says}", output), output[-3000:]


@pytest.mark.parametrize("command", pages(), ids=str)
def test_listed_command_has_a_rule(command):
    assert rule_of(command), "no rule of tests/docs/commands.py runs it"


@pytest.mark.parametrize("rule", [rule for rules in RULES.values() for rule in rules], ids=lambda rule: rule.pattern)
def test_listed_rule_has_commands_and_other_tests_run_those_of_elsewhere(rule):
    commands = [command.text for command in pages() if rule_of(command) is rule]
    assert commands, "no page has such a command"
    if rule in RULES["elsewhere"]:
        tests = "".join(file.read_text(encoding="utf-8") for file in SOURCE.glob(rule.of))
        for command in commands:
            wanted = re.match(rule.pattern, command).expand(rule.says or r"\g<0>")
            assert wanted in tests, wanted


# --- In the checkout

# Runs a few tests when it is told none.
CTEST = f"""#!/bin/sh
case " $* " in *" -R "*) exec {shutil.which("ctest")} "$@" ;; esac
exec {shutil.which("ctest")} "$@" -R "SetOptionPage|IsIp4Address"
"""


def laying(folder):
    """For sh: lays a layer above this checkout, at its place, since build folders know theirs."""
    for part in ("upper", "work"):
        (folder / part).mkdir(parents=True, exist_ok=True)
    folders = f"lowerdir={SOURCE},upperdir={folder}/upper,workdir={folder}/work"
    return shlex.join(["mount", "-t", "overlay", "overlay", "-o", folders, str(SOURCE)])


@pytest.fixture(scope="module")
def layers(build, tmp_path_factory):
    """The folder of the layers."""
    folder = tmp_path_factory.mktemp("layers")
    laid = subprocess.run(["unshare", "--mount", "sh", "-c", laying(folder / "probe")], stderr=subprocess.PIPE,
                          text=True, check=False)
    if reason := root.why_not() or laid.stderr.strip():
        pytest.skip(f"no layer can be laid above the checkout: {reason}")
    (folder / "bin").mkdir()
    (folder / "bin/ctest").write_text(CTEST, encoding="utf-8")
    (folder / "bin/ctest").chmod(0o755)
    # Some of the commands go on with these, and there is no network.
    root.packages(build)
    root.bare_archive(build)
    return folder


@commands_of_place("checkout")
def test_in_the_checkout(layers, command, rule):
    """What a block leaves there is there for its next line, and gone with it. Nobody else's ports are in the way."""
    text = script(command, rule)
    if rule.of == "device":
        text = ("mkdir -p build/commands/app build/commands/tmp; exec standin/sandbox build"
                f" --state build/commands --private-network -- bash -c {shlex.quote(text)}")
    layer = layers / (rule.layer or f"{pathlib.Path(command.page).stem}-{command.block}")
    begin = (f"{laying(layer)} && mount -t tmpfs tmpfs /dev/shm && ip link set lo up"
             f" && cd {shlex.quote(str(SOURCE))} && exec bash -c \"$0\"")
    with open(layers / "output", "w+", encoding="utf-8", errors="replace") as output:
        environment = {**os.environ, "PATH": f"{layers}/bin:{os.environ['PATH']}", "OUT": output.name,
                       "TMPDIR": str(layers)}
        done = subprocess.run(
            ["timeout", "--kill-after=10", str(SECONDS), "unshare", "--mount", "--net", "--pid", "--fork",
             "--kill-child", "--mount-proc", "sh", "-c", begin, text], input=rule.stdin, stdout=output,
            stderr=subprocess.STDOUT, text=True, check=False, env=environment)
        output.seek(0)
        expect(rule, done.returncode, output.read())


# --- In a bare root that is not booted


@pytest.fixture(scope="module")
def device(build):
    with Device(build, "Commands") as device:
        device.run("mkdir", "-p", "/root/build/packages")
        for file in device.made.values():
            shutil.copy(file, device.file("/root/build/packages"))
        # Who types the commands says yes.
        options = 'APT::Get::Assume-Yes "true"; APT::Sandbox::User "root";\n'
        device.write("/etc/apt/apt.conf.d/commands", options)
        device.write("/root/simulate", options + 'APT::Get::Simulate "true";\n')
        yield device


@commands_of_place("root")
def test_installed(device, command, rule):
    text = script(command, rule)
    if rule.of == "beside":
        output = device.run_beside("bash", "-c", text, status=rule.status)
    else:
        output = device.run("bash", "-c", f"cd /root; {text}\nexit", status=rule.status)
    expect(rule, rule.status, output)
