"""What the page takes for the value of its field, and what becomes of it: echoed and stored, byte for byte. Requests
that break the rules of CGI or of their encoding. Java has no part in it."""

import signal
from urllib.parse import quote, urlencode

import program
import pytest
from program import (CONTENT_OPENING, FRAME_OPENING, OLD_SETTINGS, PROGRAM, SETTINGS, SUCCESS_LINES, WARNING_PAGE,
                     Request, get, log_lines, post, post_multipart, run)

FIELD = "CanDetectTimeout"
MULTIPART = "multipart/form-data; boundary=frontier"


def expect_value(request, value, in_file=None):
    """None: a page without a value, which warns. `in_file` is the value as it stands in the settings file."""
    result = run(request.by("fake"))
    if value is None:
        assert result == (WARNING_PAGE, "", 1)
        assert not SETTINGS.exists()
    else:
        program.expect_success(result, value)
        program.expect_settings(f"[SETTINGS]\nVEMODCanDetectTimeout={value if in_file is None else in_file}\n")


# --- Fields, in every way in which a form comes

def url_encoded(fields):
    return urlencode(fields, quote_via=quote, encoding="latin-1")


WAYS = {"query": lambda fields: get(url_encoded(fields)), "post": lambda fields: post(url_encoded(fields)),
        "multipart": post_multipart}
EVERY_BYTE_BUT_NUL = "".join(map(chr, range(1, 256)))
EVERY_BYTE_IN_FILE = EVERY_BYTE_BUT_NUL.translate(
    str.maketrans({"\n": "\\n", "\r": "\\r", '"': '\\"', "\\": "\\\\"}))


def single(behaviour, value, in_file=None):
    return pytest.param([(FIELD, value)], value, in_file, id=behaviour)


def several(behaviour, value, *fields):
    return pytest.param(fields, value, None, id=behaviour)


@pytest.mark.parametrize("way", WAYS)
@pytest.mark.parametrize("fields, value, in_file", (
    single("a number is taken", "500"),
    single("an empty value is taken", ""),
    single("a negative number is taken", "-1"),
    single("a text is taken", "a minute or two"),
    single("a number beyond every range is taken", 400 * "9"),
    single("markup is taken unescaped", "<b>&amp;\"'</b>"),
    single("characters of URLs and of settings files are taken", "a+b&c=d;e%41#f[g]\\n"),
    single("blanks around the value are kept", " 500\t", '" 500\t"'),
    single("NUL is taken", "a\0b", '"a\\0b"'),
    single("a line end is echoed raw and adds no setting", "500\r\nVEMODOther=1\n[OTHER]",
           '"500\\r\\nVEMODOther=1\\n[OTHER]"'),
    single("every byte but NUL is taken", f"x{EVERY_BYTE_BUT_NUL}", f'"x{EVERY_BYTE_IN_FILE}"'),
    several("of a field given twice the first is taken", "first", (FIELD, "first"), (FIELD, "second")),
    several("an empty first field is taken all the same", "", (FIELD, ""), (FIELD, "second")),
    several("the name may be in any letter case", "500", ("cANdETECTtIMEOUT", "500")),
    several("the first is the first in any letter case", "first", ("candetecttimeout", "first"), (FIELD, "second")),
    several("other fields are ignored", "500", ("Other", "1"), (FIELD, "500"), ("VEMODCanDetectTimeout", "2")),
    several("no field is absent", None),
    several("another field alone is absent", None, ("CanDetectTimeout2", "500"), ("CanDetectTime", "500"))))
def test_a_field_gives_its_value(way, fields, value, in_file):
    expect_value(WAYS[way](fields), value, in_file)


# --- Single requests

# The kernel hands no longer text than this to a program, name, end and all.
LONG_IN_QUERY = (131072 - len("QUERY_STRING=CanDetectTimeout=") - 1) * "7"
LONG_IN_BODY = (1 << 20) * "7"
FORM = post("CanDetectTimeout=500")
QUERY = {"QUERY_STRING": "CanDetectTimeout=query"}
FILE = ('--frontier\r\nContent-Disposition: form-data; name="CanDetectTimeout"; filename="timeout.txt"\r\n'
        "Content-Type: text/plain\r\n\r\n500\r\n--frontier--\r\n")
REQUESTS = {
    "the longest query is taken": (get(f"CanDetectTimeout={LONG_IN_QUERY}"), LONG_IN_QUERY),
    "a posted mebibyte is taken": (post(f"CanDetectTimeout={LONG_IN_BODY}"), LONG_IN_BODY),
    "a mebibyte in a part is taken": (post_multipart([(FIELD, LONG_IN_BODY)]), LONG_IN_BODY),
    "the name alone is absent": (get("CanDetectTimeout"), None),
    "a second equals sign belongs to the value": (get("CanDetectTimeout=a=b"), "a=b"),
    "a semicolon separates fields": (get("Other=1;CanDetectTimeout=500;More=2"), "500"),
    "a plus is a blank": (get("CanDetectTimeout=a+b"), "a b"),
    "the name may be percent-encoded": (get("%43anDetectTimeout=500"), "500"),
    "bytes may come unencoded": (get("CanDetectTimeout=\xe4\xff<\"'"), "\xe4\xff<\"'"),
    "empty fields are ignored": (get("&&=1&CanDetectTimeout=500&"), "500"),
    "an empty query is absent": (get(""), None),
    "a missing query is absent": (get().having(QUERY_STRING=None), None),
    "no request at all is absent": (Request([PROGRAM], {}), None),
    "a body of a GET is not read": (FORM.having(REQUEST_METHOD="GET"), None),
    "the body comes before the query": (post("CanDetectTimeout=body").having(**QUERY), "body"),
    "the query of a POST is read": (post("Other=1").having(**QUERY), "query"),
    "the query of a multipart POST is read": (post_multipart([("Other", "1")]).having(**QUERY), "query"),
    "the body ends at its announced length": (FORM._replace(body=f"{FORM.body}0000"), "500"),
    "a body that is no form is not read": (post("CanDetectTimeout=500", "text/plain"), None),
    "a body without a type is read as a form": (FORM.having(CONTENT_TYPE=None), "500"),
    "a file is no field": (post(FILE, MULTIPART), None)}


@pytest.mark.parametrize("asked, value", REQUESTS.values(), ids=REQUESTS.keys())
def test_a_request_gives_its_value(asked, value):
    expect_value(asked, value)


# --- Requests that the CGI library throws at

PART_WITHOUT_EMPTY_LINE = ('--frontier\r\nContent-Disposition: form-data; name="CanDetectTimeout"\r\n'
                           "500\r\n--frontier--\r\n")


@pytest.mark.parametrize("asked, reason", (
    pytest.param(FORM.having(CONTENT_LENGTH="1000"), "runtime_error", id="short body"),
    pytest.param(FORM.having(CONTENT_LENGTH="-1"), "length_error", id="negative length"),
    pytest.param(post(PART_WITHOUT_EMPTY_LINE, MULTIPART), "runtime_error", id="part without an empty line")))
def test_a_malformed_request_aborts_below_the_content_opening(old_settings, asked, reason, vm):
    result = run(asked.by(vm))
    assert (result.page, result.status) == (FRAME_OPENING + CONTENT_OPENING, -signal.SIGABRT)
    assert reason in result.error
    program.expect_settings(OLD_SETTINGS)
    assert log_lines() == SUCCESS_LINES
