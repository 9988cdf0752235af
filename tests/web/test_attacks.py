"""Foreign pages and injected markup against the device, in a real browser, where nobody clicks:

- Foreign pages, of other addresses, other ports and local files, try every way to make the browser ask the device for
  a change. Each way is tried on a canary too, so that a way that is broken does not pass for one that is harmless.
- The set-option page echoes markup of every kind. With --long each is tried on a page without the device's headers.

With --long more ways are tried from each origin, and in Firefox."""

import contextlib
import http.server
import pathlib
import re
import subprocess
import tempfile
import threading
import time
import urllib.parse

import pytest
from selenium.common.exceptions import TimeoutException, WebDriverException
from selenium.webdriver.common.by import By

import browser
import device
from attempts import ANSWERS, DOCUMENTS, ECHOED, HARM, MARKUP, PARTS, UNSENT_BY_HTTP
from browser import HOME, PORT, TITLES, success
from device import SETTINGS, SHIPPED_SETTINGS, eventually, is_on_loopback
from prepared import PASSWORD, TLS
from server import running_device

ACCESS_LOG = pathlib.Path(f"/tmp/web_{PORT}/run/access.log")
HAS_TLS, HAS_PASSWORD, IS_LONG = TLS in device.PARTS, PASSWORD in device.PARTS, device.IS_LONG

# Where the foreign pages are: on another site; under the device's own name or address with another port, which makes it
# the same site.
CANARY, FOREIGN = (("http://127.0.0.3:9003", "http://127.0.0.2:9001") if is_on_loopback() else
                   (f"http://{device.SECOND}:9003", f"http://{device.SECOND}:9001"))
PERMITTED = CANARY + "/permit"
LOCAL_FILE = pathlib.Path("/tmp/attack.html")
# The device's, in addresses.
HOSTS = ("localhost", "127.0.0.1") if is_on_loopback() else (device.HOST,)
# Another port of the device's. Elsewhere than on loopback, over http, browsers do not say which port it was.
SAME_SITE = (f"http://{HOSTS[0]}:9002",) if is_on_loopback() or HAS_TLS else ()

SET_OPTION = "setobdconf.cgi?CanDetectTimeout=evil"
ALLOCATION = "channeldeviceconfig.cgi?allocation=allocate"
NVM_SERVICE = "http://127.0.0.1:5302/nVm?FunctionName=nvmAllocateDevice"  # wherever the device listens
ATTEMPT = r"attempt=([\w.:-]+)"

# Of web servers that write no log as shipped, or none here. lighttpd's also has whether a password came along.
WITH_ACCESS_LOG = (
    (r"accesslog.use-syslog.*",
     rf'accesslog.filename = "{ACCESS_LOG}"\naccesslog.format = "%h %u %t \\"%r\\" %>s %b \\"%{{Authorization}}i\\""'),
    (r"access_log off;", f"access_log {ACCESS_LOG};"),
    (r"(?m)^LoadModule cgid_module .*", rf'\g<0>\nCustomLog {ACCESS_LOG} "%h %l %u %t \\"%r\\" %>s %b"'),
)


# --- The foreign servers

hits = []  # what was asked of them
document_of = {}  # by path: (status, headers, text)


def attempts_that_hit():
    return {match[1] for path in list(hits) if (match := re.search(ATTEMPT, path))}


class ForeignSite(http.server.BaseHTTPRequestHandler):
    """Serves the attackers' pages and permits everything."""

    def answer(self):
        hits.append(self.path)
        self.rfile.read(int(self.headers.get("Content-Length") or 0))
        path = urllib.parse.urlsplit(self.path).path
        status, headers, text = document_of.get(path, (200, {}, ""))
        body = text.encode()
        self.send_response(status)
        for name, value in {
            "Content-Type": "text/html;charset=utf-8",
            "Content-Length": len(body),
            "Cache-Control": "no-store",
            "Access-Control-Allow-Origin": self.headers.get("Origin", "*"),
            "Access-Control-Allow-Credentials": "true",
            "Access-Control-Allow-Methods": "GET, POST, PUT",
            "Supports-Loading-Mode": "credentialed-prerender",
            **headers,
        }.items():
            self.send_header(name, value)
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(body)

    do_GET = do_POST = do_PUT = do_HEAD = do_OPTIONS = answer

    def log_message(self, *_):
        pass


@contextlib.contextmanager
def foreign_sites():
    with contextlib.ExitStack() as stack:
        for port in (9001, 9002, 9003):
            server = stack.enter_context(http.server.ThreadingHTTPServer(("", port), ForeignSite))
            threading.Thread(target=server.serve_forever, daemon=True).start()
            stack.callback(server.shutdown)
        yield


# --- The browser, which is used for the device as well

class Victim(browser.Technician):
    def look(self, url):
        """Until the page is complete: one that is left stops what it has not sent. One that leads into nothing is no
        page for the driver."""
        with contextlib.suppress(TimeoutException, WebDriverException):
            self.driver.get(url)
        eventually(lambda: self.driver.execute_script("return document.readyState") == "complete")


@pytest.fixture(scope="module")
def anybody():
    with running_device(*WITH_ACCESS_LOG), foreign_sites(), browser.running_browser(
            # Without which it fetches nothing ahead of time.
            without=("--disable-background-networking",),
            page_load_strategy="eager") as driver:
        yield Victim(driver, browser.root())


@pytest.fixture
def victim(anybody):
    device.write_shipped_settings()
    hits.clear()
    return anybody


# --- The device, seen from behind

def access_log():
    """The server keeps its last lines to itself for a while."""
    mark = f"/?read={time.monotonic_ns()}"
    subprocess.run(["/usr/bin/curl", "-sS", "--insecure", "-o", "/dev/null", browser.root() + mark], check=True)
    assert eventually(lambda: mark + " " in ACCESS_LOG.read_text(errors="replace")), "the web server writes no log"
    return ACCESS_LOG.read_text(errors="replace")


def asked_of_the_device(pattern):
    """(method, path with query, status) of each request up to now whose path matches."""
    return [(match[1], match[2], int(match[3])) for line in access_log().splitlines()
            if (match := re.search(r'"([A-Z]+) (\S+) HTTP/[\d.]+" (\d{3}) ', line)) and re.search(pattern, match[2])]


def is_allocated():
    """Whether somebody holds the diagnostic interface, as the device's own page has it."""
    return b"<dt>Allocation</dt><dd>Free<" not in device.run_program(page="channeldeviceconfig.cgi")


# --- Foreign pages

def attack(look, origin, target, tag, has_all=False, is_hidden=False):
    """Opens pages of the origin, which may hide their address: one with all parts; `has_all`: also those that lead
    away. Returns the names of the attempts."""
    made = set()

    def url(name):
        made.add(f"{tag}.{name}")
        # Nothing must stand behind the query of an order to the nVm service.
        sign = "#" if "/nVm?" in target else "&" if "?" in target else "?"
        return f"{target}{sign}attempt={tag}.{name}"

    def answer(use, name):
        """Puts an answer of the foreign server there; its path."""
        status, header, value = ANSWERS[name]
        path = f"/{tag}/answer-{use}-{name}"
        document_of[path] = status, {header: value.replace("{u}", url(f"{use}-{name}"))}, "<img src=/x.gif>"
        return path

    def show(name, text):
        path = f"/{tag}/{name}"
        document_of[path] = 200, {"Referrer-Policy": "no-referrer"} if is_hidden else {}, text
        if origin == LOCAL_FILE.as_uri():
            LOCAL_FILE.write_text(text, encoding="utf-8")
            path = ""
        look(origin + path)

    answers = ANSWERS if origin.startswith("http") else ()
    parts = [text.replace("{u}", url(name)) for name, text in PARTS.items()]
    parts += [f"<img src='{answer('img', name)}'>" for name in answers if "redirect" in name]
    show("all", "<!DOCTYPE html><body>" + "\n".join(parts))
    if has_all:
        for name, text in DOCUMENTS.items():
            show(name, text.replace("{u}", url(name)))
        for name in answers:
            # A redirect of an address that was typed would be taken for the typed address itself: the request is the
            # same. So a page leads there.
            show(name, DOCUMENTS["location"].replace("{u}", answer("page", name)))
    return made


def test_each_way_works_where_it_is_permitted(victim):
    made = attack(victim.look, FOREIGN, PERMITTED, "canary", has_all=True)
    expected = made if is_on_loopback() else made - {f"canary.{name}" for name in UNSENT_BY_HTTP}
    assert eventually(lambda: attempts_that_hit() >= expected), sorted(expected - attempts_that_hit())


def attacks():
    """Origin, target, whether the pages that lead away are tried too, and whether pages hide their address. To loopback
    and to https the browser sends it all the same."""
    first, last = (f"{'https' if HAS_TLS else 'http'}://{host}:{PORT}" for host in (HOSTS[0], HOSTS[-1]))
    yield FOREIGN, f"{first}/{SET_OPTION}", True, not is_on_loopback() and not HAS_TLS
    for origin in (*SAME_SITE, LOCAL_FILE.as_uri()):
        yield origin, f"{first}/{SET_OPTION}", IS_LONG, False
    yield FOREIGN, f"{last}/{ALLOCATION}", IS_LONG, False
    yield FOREIGN, f"{first}/reboot.cgi", IS_LONG, False
    if HAS_TLS:
        # It leads on to https.
        yield FOREIGN, f"http://{HOSTS[0]}:{PORT + 1}/{SET_OPTION}", True, True
    # By a browser that has just been used for the device's own pages.
    yield FOREIGN, f"{first}/{SET_OPTION}", IS_LONG, True


def test_foreign_pages_change_nothing(victim):
    boot = device.BOOT.read_text()
    made = set()
    for number, (origin, target, has_all, is_hidden) in enumerate(attacks()):
        made |= attack(victim.look, origin, target, f"device{number}", has_all, is_hidden)
        victim.open(success("300"))
    attack(victim.look, FOREIGN, NVM_SERVICE, "nvm", has_all=True)
    # Attempts that work on the canary work here; the last may be on their way.
    time.sleep(1)

    asked = [request for request in asked_of_the_device(ATTEMPT) if request[2] != 307]
    arrived = {re.search(ATTEMPT, path)[1] for _, path, _ in asked} & made
    taken = [(method, path) for method, path, status in asked if status != 403
             # It only shows.
             and not (method == "GET" and path.startswith("/channeldeviceconfig.cgi"))]
    assert taken == []
    assert len(arrived) > len(made) * 3 // 4
    assert SETTINGS.read_bytes() == SHIPPED_SETTINGS.read_bytes()
    assert not is_allocated()
    assert device.BOOT.read_text() == boot
    if HAS_PASSWORD:
        # With requests for pages; others the browser keeps separate by the site of the page.
        assert len(re.findall(r"attempt=.* 403 .*Digest username=", access_log())) > len(DOCUMENTS)


def test_a_typed_address_that_redirects_to_the_device(victim):
    for status in (301, 302, 303, 307, 308):
        path = f"/typed-{status}"
        document_of[path] = (status, {"Location": f"{victim.root}/{SET_OPTION}{status}"}, "")
        victim.look(FOREIGN + path)
        stored = SETTINGS.read_text()
        if is_on_loopback():
            assert f"\nVEMODCanDetectTimeout=evil{status}\n" in stored
        else:
            assert stored == SHIPPED_SETTINGS.read_text()


# --- Markup in the echo

def markup(text, own, foreign):
    """That asks for both, one after the other."""
    return "".join(text.replace("{u}", address) for address in dict.fromkeys((own, foreign)))


@pytest.mark.long
def test_each_kind_of_markup_works_on_an_unprotected_page(victim):
    for name, text in MARKUP.items():
        echo = markup(text, PERMITTED, PERMITTED)
        document_of[f"/echo/{name}"] = 200, {}, f"<!DOCTYPE html><title>x</title><p>{echo}</p>"
        hits.clear()
        victim.look(f"{FOREIGN}/echo/{name}")
        assert eventually(lambda: {"/permit", "/x.gif"} & set(hits) or victim.title == "harm"), name


def test_markup_in_the_echo_does_nothing(victim):
    for name, text in {**MARKUP, **ECHOED}.items():
        value = markup(text, f"/setobdconf.cgi?CanDetectTimeout=harm&attempt={name}", f"{PERMITTED}?attempt={name}")
        victim.open(success(value))
        assert victim.title == TITLES["Set CanDetectTimeout"], value
        assert victim.heading() == "Set CanDetectTimeout", value
        assert f"\nVEMODCanDetectTimeout={value}\n" in SETTINGS.read_text()
    time.sleep(1)
    asked = asked_of_the_device("CanDetectTimeout=(harm|evil$)")
    assert {status for *_, status in asked} <= {403}, asked
    # The browser asks late for the icon of a foreign page that it has shown before.
    assert set(hits) <= {"/favicon.ico"}, "loaded from a foreign server"


@(pytest.mark.long if IS_LONG else pytest.mark.loopback)
def test_markup_in_the_echo_has_no_style_no_script_no_frame_and_sends_no_form(victim):
    styles = ("position:fixed", "clear:both;position:fixed", "clear:both ")
    forms = [f'<form action="{target}" method="{method}"><input type="submit" value="Win"></form>'
             for target in ("/reboot.cgi", FOREIGN + HOME) for method in ("get", "post")]
    victim.post("".join(f'<i id="i{i}" style="{style}">x</i>' for i, style in enumerate(styles)) + "".join(forms) +
                f'<a href="javascript:void({HARM})">500</a><iframe name="frame" src="{HOME}"></iframe>')
    for number in range(len(styles)):
        assert victim.style(f"#i{number}", "position") == "static"
        assert victim.style(f"#i{number}", "clear") == "none"
    buttons = victim.driver.find_elements(By.CSS_SELECTOR, "input[value=Win]")
    assert len(buttons) == 4
    for element in (victim.links()["500"], *buttons):
        element.click()
        # Had it been sent, the browser would have left before it answers the next order.
        assert victim.title == TITLES["Set CanDetectTimeout"]
    victim.driver.switch_to.frame("frame")
    assert victim.driver.find_elements(By.TAG_NAME, "h2") == []
    victim.driver.switch_to.default_content()


# --- Firefox, which needs no driver: it loads a page and takes a picture

def load_in_firefox(url):
    with tempfile.TemporaryDirectory(dir="/tmp", ignore_cleanup_errors=True) as folder:
        # It may wait for a page that leads to nothing.
        subprocess.run(["/usr/bin/timeout", "--kill-after", "1", str(3 * device.LIMIT), "/usr/bin/firefox-esr",
                        "--headless", "--profile", folder, "--screenshot", f"{folder}/picture.png", url],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)


@pytest.mark.long
@pytest.mark.skipif(bool(device.PARTS), reason="Firefox knows neither password nor certificate")
def test_foreign_pages_in_firefox_change_nothing(victim):
    made = attack(load_in_firefox, FOREIGN, PERMITTED, "firefox", has_all=True)
    sent = len(attempts_that_hit())
    assert sent > len(made) // 2

    attack(load_in_firefox, FOREIGN, f"{victim.root}/{SET_OPTION}", "firefox", has_all=True)
    time.sleep(1)
    asked = asked_of_the_device("attempt=firefox")
    assert len(asked) > sent // 2
    assert {status for *_, status in asked} == {403}, asked
    assert SETTINGS.read_bytes() == SHIPPED_SETTINGS.read_bytes()
