"""The stand-in device's nVm service: its rules, its replies, its timeouts."""

import contextlib
import os
import re
import resource
import signal
import socket
import struct
import subprocess

import nvm
import pytest
from nvm import ALLOCATE, FREE_REPLY, RELEASE, STATUS, connect, exchange, owner_packet, receive, reply, send, statements
from program import Request, end, eventually, read, run, write

OLD_LOG = nvm.LOG.with_name("nvm.log.1")
NOTHING = nvm.packet()
GARAGE = owner_packet("GARAGE", "10.0.0.7")
HELD_BY_GARAGE = reply("1", "GARAGE", "10.0.0.7")


def error(code, message):
    return reply(code=code, message=message)


NO_PACKET = error("4", "Request is no WDDX packet")


def ask(function=STATUS, body=NOTHING):
    """The body of the answer, which must be a valid packet in a header of the usual form."""
    answer = exchange(nvm.request(function, body))
    packet = answer[answer.find("<?xml"):]
    assert answer == nvm.http_reply(packet)
    assert nvm.is_valid(packet)
    return packet


@pytest.fixture
def service():
    with nvm.service(stderr=subprocess.PIPE) as process:
        yield process


# --- Requests and replies

def test_gives_the_device_to_one_owner_at_a_time_and_logs_each_request(service):
    garage, vemo_web = owner_packet("GARAGE"), owner_packet("VEMO_WEB")
    refused = reply("1", "GARAGE", "0", "1", "Device is allocated by GARAGE")
    for function, body, answer, logged in (
            (STATUS, NOTHING, FREE_REPLY, "INFO nvmGetDeviceStatus: 0 ; owner now: nobody"),
            (RELEASE, garage, error("2", "Device is not allocated"),
             "ERROR nvmReleaseDevice: 2 Device is not allocated; owner now: nobody"),
            (ALLOCATE, NOTHING, error("3", "No device owner given"),
             "ERROR nvmAllocateDevice: 3 No device owner given; owner now: nobody"),
            (ALLOCATE, GARAGE, HELD_BY_GARAGE, "INFO nvmAllocateDevice: 0 ; owner now: GARAGE"),
            (ALLOCATE, garage, reply("1", "GARAGE", "0"), "INFO nvmAllocateDevice: 0 ; owner now: GARAGE"),
            (ALLOCATE, vemo_web, refused,
             "ERROR nvmAllocateDevice: 1 Device is allocated by GARAGE; owner now: GARAGE"),
            (RELEASE, vemo_web, refused,
             "ERROR nvmReleaseDevice: 1 Device is allocated by GARAGE; owner now: GARAGE"),
            (RELEASE, GARAGE, FREE_REPLY, "INFO nvmReleaseDevice: 0 ; owner now: nobody")):
        assert ask(function, body) == answer
        assert statements()[-1] == logged


# Declarations before a packet.
CHINESE = "<?xml version='1.0' encoding='ISO-2022-CN-EXT'?>"
ENTITY = "<!DOCTYPE wddxPacket [<!ENTITY e 'GARAGE'>]>"
FILE_ENTITY = "<!DOCTYPE wddxPacket [<!ENTITY e SYSTEM '/tmp/secret.txt'>]>"
FILE_TYPE = "<!DOCTYPE wddxPacket SYSTEM '/tmp/packet.dtd'>"
ANSWERS = {
    "texts_are_escaped": (ALLOCATE, owner_packet("&lt;A&amp;B&gt;"), reply("1", "&lt;A&amp;B&gt;", "0")),
    "an_unknown_function_is_refused": ("nvmSellDevice", NOTHING, error("5", "Unknown function nvmSellDevice")),
    "no_function_is_refused": ("", NOTHING, error("5", "Unknown function ")),
    "a_long_name_is_shortened": (3000 * "f", NOTHING, error("5", f"Unknown function {100 * 'f'}...")),
    "no_body_is_refused": (STATUS, "", NO_PACKET),
    "what_is_no_xml_is_refused": (STATUS, "no XML", NO_PACKET),
    "a_packet_without_data_is_refused": (STATUS, "<wddxPacket/>", NO_PACKET),
    "a_long_body_is_read": (STATUS, NOTHING + 3000 * " ", FREE_REPLY),
    "a_packet_is_utf8_whatever_it_declares":
        (ALLOCATE, CHINESE + owner_packet("M\xC3\xBCLLER"), reply("1", "M\xC3\xBCLLER", "0")),
    "an_entity_is_refused": (ALLOCATE, ENTITY + owner_packet("&e;"), NO_PACKET),
    "an_external_entity_is_refused": (ALLOCATE, FILE_ENTITY + owner_packet("GARAGE", "&e;"), NO_PACKET),
    "the_document_type_is_not_loaded": (ALLOCATE, FILE_TYPE + owner_packet("GARAGE", "&e;"), reply("1", "GARAGE"))}


@pytest.mark.parametrize("function, body, answer", ANSWERS.values(), ids=ANSWERS)
def test_answers(service, function, body, answer):
    write("/tmp/secret.txt", "secret")
    write("/tmp/packet.dtd", "<!ENTITY e 'secret'>")
    assert ask(function, body) == answer


def test_serves_a_common_http_client(service):
    result = run(Request(["/usr/bin/curl", "--silent", "--show-error", "--compressed", "-X", "GET", "-d", GARAGE,
                          "http://127.0.0.1:5302/nVm?FunctionName=nvmAllocateDevice"], {}))
    assert result == (HELD_BY_GARAGE, "", 0)


def test_ignores_bytes_behind_the_body(service):
    assert exchange(nvm.request(ALLOCATE, GARAGE) + "<more/>") == nvm.http_reply(HELD_BY_GARAGE)


# --- Requests that no client of the service sends, but a web page could

NOT_ALLOWED = "405 Method Not Allowed"
FORBIDDEN = "403 Forbidden"
REFUSALS = {
    "other_methods": (NOT_ALLOWED, "method", ("POST", "PUT", "DELETE", "OPTIONS", "PATCH", "get")),
    "other_paths": ("404 Not Found", "target",
                    ("/", "/nvm?FunctionName=nvmReleaseDevice", "/nVm/?FunctionName=nvmReleaseDevice")),
    "other_parameters": ("400 Bad Request", "target", ("/nVm", "/nVm?", "/nVm?FunctionName", "/nVm?Function=x",
                                                       "/nVm?FunctionName=nvmReleaseDevice&FunctionName=x")),
    "what_a_browser_adds": (FORBIDDEN, "more", [f"{header}\r\n" for header in (
        "Origin: http://127.0.0.1:5302", "Origin: null", "Referer: http://127.0.0.1/", "Sec-Fetch-Site: none",
        "Sec-Purpose: prefetch", "Purpose: prefetch", "Upgrade: websocket", "Accept-Language: de",
        "Upgrade-Insecure-Requests: 1", "Cookie: a=b", "X-Any: 1", "Content-type: text/xml")]),
    "other_hosts": (FORBIDDEN, "host",
                    ("localhost", "127.0.0.2", "vemo.example", "127.0.0.1:80", "[::1]", "127.0.0.1.example"))}


def expect_refusal(status, **parts):
    """Of a request to release the device, which GARAGE holds, with these parts."""
    allow = "allow: GET\r\n" if status == NOT_ALLOWED else ""
    assert exchange(nvm.request(**{"function": RELEASE, "body": GARAGE, **parts})) == (
        f"HTTP/1.1 {status}\r\nConnection: close\r\ncontent-type: text/xml\r\ncontent-length: 0\r\n"
        f"{allow}Content-Length: 0\r\n\r\n")
    assert f": refused with {status[:3]}" in statements()[-1]
    assert ask() == HELD_BY_GARAGE


@pytest.mark.parametrize("status, part, values", REFUSALS.values(), ids=REFUSALS)
def test_refuses(service, status, part, values):
    ask(ALLOCATE, GARAGE)
    for value in values:
        expect_refusal(status, **{part: value})


def test_refuses_a_form_that_holds_another_request(service):
    ask(ALLOCATE, GARAGE)
    expect_refusal(NOT_ALLOWED, method="POST", body=nvm.request(RELEASE, GARAGE))


def test_a_get_without_a_body_changes_nothing(service):
    """What a browser sends without a page's help: for a link, an image."""
    answer = exchange("GET /nVm?FunctionName=nvmAllocateDevice HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")
    assert answer == nvm.http_reply(NO_PACKET)


def announcing(length):
    return nvm.request(body="").replace("Content-length: 0", f"Content-length: {length}")


@pytest.mark.parametrize("request_text, status", (
    (nvm.request(more="Transfer-Encoding: chunked\r\n"), "4"), (nvm.request(more="Expect: 100-continue\r\n"), "403 "),
    (announcing(4097), "413 "), (announcing("-1"), "4"), (announcing("99999999999999999999999"), "4"),
    (announcing("x"), "4")), ids=("chunks", "continue", "too_long", "negative", "impossible", "no_number"))
def test_refuses_a_body(service, request_text, status):
    assert f"HTTP/1.1 {status}" in exchange(request_text)
    assert ask() == FREE_REPLY


# --- Clients that misbehave: the next one is served all the same

@contextlib.contextmanager
def clients(count):
    with contextlib.ExitStack() as stack:
        yield [stack.enter_context(connect()) for _ in range(count)]


def has_ended(connection, limit=20):
    """Whether the service closes or resets it before it is silent for the limit, in seconds."""
    connection.settimeout(limit)
    try:
        while connection.recv(4096):
            pass
    except TimeoutError:
        return False
    except ConnectionError:
        pass
    return True


def expect_others_are_served():
    assert ask() == FREE_REPLY


# The last four are no HTTP.
@pytest.mark.parametrize("sent", ("", "GET /nVm?FunctionName=nvmGetDev", nvm.request(), "\0\xFF\r\n\r\n",
                                  "\r\n\r\n\r\n", "GET\r\n\r\n", "GET  HTTP/1.1\r\n:\r\n\r\n"),
                         ids=lambda sent: repr(sent[:31]))
def test_a_client_that_stops_anywhere_and_goes_away(service, sent):
    with connect() as client:
        send(client, sent)
        expect_others_are_served()
    expect_others_are_served()


def test_a_client_that_sends_a_head_without_an_end(service):
    with connect() as client:
        send(client, 65536 * "x")
        expect_others_are_served()
        assert has_ended(client)


def test_a_slow_client_is_served_in_the_end(service):
    with connect() as slow:
        for number, byte in enumerate(nvm.request()):
            send(slow, byte)
            if number % 50 == 0:
                expect_others_are_served()
        assert receive(slow) == nvm.http_reply(FREE_REPLY)


def test_clients_that_take_longer_than_the_timeout(service):
    """More than are served at once."""
    def ends_after_one_more():
        send(slow, "x")
        return has_ended(slow, 0.2)

    with connect() as slow, clients(300) as silent:
        send(slow, "GET /nVm?FunctionName=")
        # As long as it sends, but for a bounded time.
        assert eventually(ends_after_one_more)
        assert has_ended(silent[0])
        expect_others_are_served()


@pytest.mark.namespaces("a traced service does not stop at the signal")
def test_clients_that_are_gone_when_they_are_answered(service):
    # The service sleeps until the clients have gone.
    service.send_signal(signal.SIGSTOP)
    os.waitpid(service.pid, os.WUNTRACED)
    with clients(2) as (reset, closed):
        send(reset, nvm.request())
        reset.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        reset.shutdown(socket.SHUT_WR)
        reset.close()
        send(closed, nvm.request())
    service.send_signal(signal.SIGCONT)
    expect_others_are_served()
    assert eventually(lambda: len(statements()) == 2)
    expect_others_are_served()


# --- The log

def errors(service):
    """All that the service wrote to standard error; ends it."""
    service.kill()
    return service.communicate()[1]


def test_a_name_neither_forges_nor_floods_the_log(service):
    ask("nvm%0D%0AForged")
    ask(ALLOCATE, owner_packet("A&#10;B&#13;\xC2\x85\\"))
    ask(RELEASE, owner_packet("A&#10;B&#13;\xC2\x85\\"))
    ask(ALLOCATE, owner_packet(3000 * "o"))
    assert statements() == ["ERROR nvm\\x0D\\x0AForged: 5 Unknown function nvm\\x0D\\x0AForged; owner now: nobody",
                            "INFO nvmAllocateDevice: 0 ; owner now: A\\x0AB\\x0D\\xC2\\x85\\",
                            "INFO nvmReleaseDevice: 0 ; owner now: nobody",
                            f"INFO nvmAllocateDevice: 0 ; owner now: {100 * 'o'}..."]


def test_logs_to_a_new_file_after_a_rename(service):
    for rotate in (lambda: None, nvm.LOG.touch):  # a log rotation may make the file itself
        ask()
        nvm.LOG.rename(OLD_LOG)
        rotate()
        ask(RELEASE)
        assert statements() == ["ERROR nvmReleaseDevice: 2 Device is not allocated; owner now: nobody"]
        assert read(OLD_LOG).count("\n") == 1
        nvm.LOG.unlink()


# Nothing is opened anew: it could not be.
def test_the_log_stays_open_while_it_is_the_file_at_its_path(service):
    ask()
    nvm.LOG.chmod(0o400)
    ask()
    assert len(statements()) == 2
    assert errors(service) == b""


def test_logs_to_the_old_file_where_no_new_one_can_be_made(service):
    nvm.LOG.rename(OLD_LOG)
    nvm.LOG.mkdir()
    ask()
    nvm.LOG.rmdir()
    assert read(OLD_LOG).count("\n") == 1
    assert errors(service) == b"Can't open log file /tmp/nvm.log: Is a directory\n"


# --- Want: of threads, descriptors and memory

def limited(which, number):
    """A service that gets no more than this of a resource."""
    return nvm.service(preexec_fn=lambda: resource.setrlimit(which, (number, number)))


def test_needs_no_thread():
    with limited(resource.RLIMIT_NPROC, 0):
        expect_others_are_served()


def test_recovers_from_want_of_descriptors():
    with limited(resource.RLIMIT_NOFILE, 16):
        with clients(32):
            pass
        expect_others_are_served()


def test_lives_on_in_want_of_memory(service):
    kibibytes = int(re.search(r"VmPeak:\s+(\d+)", read(f"/proc/{service.pid}/status"))[1])
    end(service)
    request = nvm.request(RELEASE, owner_packet(3500 * "x"))
    # From hardly enough for one client to enough for all.
    for mebibytes in range(1, 11):
        with limited(resource.RLIMIT_AS, (kibibytes + mebibytes * 1024) * 1024), clients(250) as many:
            for part in (request[:100], request[100:]):
                for client in many:
                    send(client, part)
            assert all(map(has_ended, many))
            assert nvm.is_listening(), f"{mebibytes} MiB"


# --- Beginning and end

def test_ends_on_a_termination_signal(service):
    assert end(service, signal.SIGTERM) == -signal.SIGTERM
    assert not nvm.is_listening()


def test_a_restarted_one_listens_at_once(service):
    ask()
    end(service)
    with nvm.service():
        expect_others_are_served()


@pytest.mark.parametrize("arguments, problem", (([], "127.0.0.1:5302: Address already in use"),
                                                (["here"], "here:5302: Invalid argument")))
def test_does_not_start_where_it_cannot_listen(service, arguments, problem):
    assert run(Request([nvm.SERVICE, *arguments], {})) == ("", f"nvm-service: can't listen on {problem}\n", 1)


def test_one_on_another_address_may_run_beside(service):
    with nvm.service("127.0.0.2"):
        ask(ALLOCATE, GARAGE)
        assert exchange(nvm.request(host="127.0.0.2"), "127.0.0.2") == nvm.http_reply(FREE_REPLY)
