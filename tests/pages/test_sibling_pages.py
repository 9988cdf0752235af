"""The sibling pages, as the web server starts them: with the nVm service and the Java side there, and without."""

import signal

import nvm
import program
import pytest
from page import INFORMATION, REBOOT, expect_texts, show
from program import SETTINGS, get, log_lines, post, run, write

GET = get(program=INFORMATION)
TIMEOUT_300 = 'name="CanDetectTimeout" value="300" inputmode="numeric"'
FREE = "<dt>Allocation</dt><dd>Free</dd>"


@pytest.fixture(autouse=True)
def settings(no_settings):
    write(SETTINGS, "[SETTINGS]\nVEMODCanDetectTimeout=300\n")


@pytest.fixture
def service():
    with nvm.service():
        yield


def order(word):
    return post(f"allocation={word}", program=INFORMATION)


# --- Settings and addresses

def test_shows_setting_with_its_hints_allocation_and_addresses(service):
    expect_texts(show(GET.having(JAVA_CLASSPATH="/build/tests/java/calling")),
                 "<title>VEMO Web Server - Device Information</title>",
                 TIMEOUT_300, 'required="required" pattern="[0-9]{1,6}" maxlength="7"',
                 'aria-describedby="timeout-hint"', '<p class="hint" id="timeout-hint" >', "number of milliseconds",
                 "listens on a CAN line", "after a reboot", "some seconds",
                 FREE, "<dt>Owner</dt><dd>None</dd>", "<dt>Status</dt><dd>No error (code 0)</dd>",
                 "<dt>LAN address</dt><dd>192.0.2.7</dd>", "<dt>WLAN address</dt><dd>198.51.100.9</dd>")
    assert log_lines()[0] == "DEBUG pages/DeviceInformation 1 main"


def test_escapes_the_stored_value():
    write(SETTINGS, '[SETTINGS]\nVEMODCanDetectTimeout="><script>&\xFC\n')
    expect_texts(show(GET), 'value="&quot;&gt;&lt;script&gt;&amp;&uuml;" inputmode')


def test_reports_that_the_settings_cannot_be_read():
    SETTINGS.chmod(0)
    expect_texts(show(GET), "The settings file cannot be read", 'name="CanDetectTimeout" value=""')


def test_reports_that_the_service_is_not_there_and_shows_the_rest():
    # A network that is not our own may have an address.
    network = "" if program.IS_TRACED else "Not connected</dd>"
    expect_texts(show(GET), "The nVm service does not answer", TIMEOUT_300, f"<dt>LAN address</dt><dd>{network}",
                 absent=["<dt>Allocation</dt>"])


def test_reports_that_the_java_side_is_not_there_and_shows_the_rest(service):
    expect_texts(show(GET.having(JAVA_CLASSPATH="/nowhere")), "The Java side does not answer", TIMEOUT_300, FREE,
                 absent=["<dt>LAN address</dt>"])


# Nothing is claimed about a network that could not be asked for.
def test_reports_that_an_address_is_not_known_when_its_method_is_missing():
    expect_texts(show(GET.having(JAVA_CLASSPATH="/build/tests/java/without")),
                 "<dt>LAN address</dt><dd>Not known</dd>", "<dt>WLAN address</dt><dd>Not known</dd>")


def test_shows_all_but_the_addresses_when_the_vm_ends_the_process(service):
    expect_texts(run(GET.having(JAVA_OPTIONS="-Xmx1k")).page, FREE, TIMEOUT_300)


# --- The allocation

def test_allocates_and_releases(service):
    expect_texts(show(order("allocate")), "<dt>Allocation</dt><dd>Allocated</dd>", "<dt>Owner</dt><dd>VEMO_WEB</dd>",
                 'value="Release"', absent=['value="Allocate"'])
    expect_texts(show(order("release")), FREE, 'value="Allocate"', absent=['value="Release"'])


def test_changes_nothing_on_a_get_or_an_unknown_order(service):
    for request in (get("allocation=allocate", INFORMATION), order("other"), post("", program=INFORMATION)):
        expect_texts(show(request), FREE)


def test_reports_a_refusal_and_offers_nothing_to_others(service):
    nvm.exchange(nvm.request(nvm.ALLOCATE, nvm.owner_packet("Werkstatt &lt;M\xC3\xBCller&gt;")))
    expect_texts(show(order("allocate")),
                 '<p class="warn" >Allocate was refused: Device is allocated by '
                 "Werkstatt &lt;M&uuml;ller&gt; (code 1).</p>",
                 "<dt>Owner</dt><dd>Werkstatt &lt;M&uuml;ller&gt;</dd>", absent=['name="allocation"'])


def test_reports_an_order_that_did_not_reach_the_service():
    expect_texts(show(order("allocate")), '<p class="warn" >Allocate did not reach the nVm service.</p>')
    expect_texts(show(order("other")), absent=["did not reach"])


@pytest.mark.parametrize("code, message, text", (("0", "Done", "<dd>Done (code 0)</dd>"),
                                                 ("7", "", "<dd>Error without a message (code 7)</dd>")))
def test_shows_the_services_code_and_message(code, message, text):
    with nvm.answering(nvm.reply(code=code, message=message)):
        expect_texts(show(GET), text)


def test_reports_what_the_services_answer_does_not_contain_as_not_known():
    with nvm.answering("<?xml version='1.0'?><html/>"):
        expect_texts(show(order("allocate")),
                     "Allocate may have failed: the nVm service's answer cannot be read.",
                     "<dt>Allocation</dt><dd>Not known</dd>", "<dt>Owner</dt><dd>Not known</dd>",
                     "<dt>Status</dt><dd>Not known</dd>", absent=['name="allocation"'])


# --- Both pages

@pytest.mark.parametrize("page", (INFORMATION, REBOOT))
def test_a_malformed_request_ends_before_any_output(page):
    result = run(post("x=1", program=page).having(CONTENT_LENGTH="100"))
    assert (result.page, result.status) == ("", -signal.SIGABRT)


def test_the_navigation_leads_over_the_pages_parents():
    information = ('\n<div class="navi" ><a class="small" href="/index.html" >Home</a> / '
                   '<a class="small" href="channeldeviceconfig.cgi" >Device Information</a>')
    expect_texts(show(GET), f"{information}</div>\n<h2>Device Information</h2>\n")
    expect_texts(show(get(program=REBOOT)),
                 f'{information} / <a class="small" href="reboot.cgi" >Reboot</a></div>\n<h2>Reboot</h2>\n')
