"""Hostile requests: known ones, and the strategies that make others. Texts stand for bytes, as ISO 8859-1."""

import operator
from urllib.parse import quote

from hypothesis import strategies as st

from program import Request, get, post, post_multipart

FORM = "CanDetectTimeout=500"
MEBIBYTE = 1 << 20
LONGEST_VARIABLE = 131072  # of the kernel: name, equals sign and end included
DISPOSITION = 'Content-Disposition: form-data; name="CanDetectTimeout"'
MULTIPART = "multipart/form-data; boundary=frontier"


# --- Known requests, each of which once hurt or might, and how they end. More: tests/program/test_form_input.py

def announcing(length, body=FORM):
    return post(body).having(CONTENT_LENGTH=length)


def value(text):
    """The value as it is in the query string."""
    return get("CanDetectTimeout=" + text)


def part(text, boundary="frontier"):
    """A body of one part: header lines, an empty one and the value, say."""
    return post(f"--{boundary}\r\n{text}\r\n--{boundary}--\r\n", f"multipart/form-data; boundary={boundary}")


KNOWN = {
    "no method": (get(FORM).having(REQUEST_METHOD=None), "stored"),
    "method in lower case": (post(FORM).having(REQUEST_METHOD="post"), "stored"),
    "broken cookies": (get(FORM).having(HTTP_COOKIE=";;a;b==;CanDetectTimeout=1; ;\xff"), "stored"),
    "garbage as time zone": (get(FORM).having(TZ=":/etc/passwd%s\xff"), "stored"),
    "format directives for Java": (get(FORM).having(JAVA_OPTIONS="%s%n%x", JAVA_CLASSPATH="%s%n%x%1000000d"), "stored"),
    "log lines in JAVA_OPTIONS": (get(FORM).having(
        JAVA_OPTIONS="-Da\n2026-01-01 00:00:00.000000  ERROR     cgi            1     "
                     "src/SetObdConf           50    forged"), "stored"),
    "no Java and a body unread": (post(FORM).having(FAKE_VM_RESULT="-1"), "frame only"),

    "length missing": (post(FORM).having(CONTENT_LENGTH=None), "absent"),
    "length zero": (announcing("0"), "absent"),
    "length of words": (announcing("a lot"), "absent"),
    "length of 10 gigabytes": (announcing("10000000000"), "aborted"),
    "length beyond 64 bits": (announcing("99999999999999999999999999999999"), "aborted"),
    "body missing": (announcing("20", ""), "aborted"),
    "body one byte short": (announcing("21"), "aborted"),

    "NUL in the name": (get("CanDetectTimeout%00=500"), "absent"),
    "escape cut short": (value("5%4"), "stored"),
    "escape of no digits": (value("%zz%-1"), "stored"),
    "value like a section": (value("[CAN]"), "stored"),
    "backslashes behind a quote": (value(r'"\\n\)'), "stored"),
    "value of blanks": (value("%20%09+"), "stored"),
    "value in quotes": (value('"500"'), "stored"),
    "line ends and NUL in the value": (value("1%0D%0AVEMODOther=1%0A[OTHER]%0A%00"), "stored"),

    "multipart without a boundary": (post(FORM, "multipart/form-data"), "absent"),
    "empty boundary": (part(DISPOSITION + "\r\n\r\n500", ""), "stored"),
    "boundary in the value": (part(DISPOSITION + "\r\n\r\n500 --frontier 600"), "stored"),
    "name without quotes": (part("Content-Disposition: form-data; name=CanDetectTimeout\r\n\r\n500"), "absent"),
    "part without a disposition": (part("\r\n500"), "aborted"),
    "part without an end": (post(f"--frontier\r\n{DISPOSITION}\r\n\r\n500", MULTIPART), "absent"),
    "bare newlines": (post(f"--frontier\n{DISPOSITION}\n\n500\n--frontier--\n", MULTIPART), "absent"),
}


# --- What others are made of. What is usual comes first: a failing request is reduced to it.

ODD_TEXTS = [
    "", "-1", "+500", "0x10", "9223372036854775808", 26 * "9", "".join(map(chr, range(256))), "a\0b",
    "<script>alert(1)</script>", "&amp;<>\"'", "</body></html>", "<!--", "%s%n%x", "%4", "%zz", "%00", "; reboot",
    # Of settings files.
    "1\nVEMODOther=1", "1\r\n[OTHER]\r\nx=1", "\n", "\r", "\n[CAN]", "[SETTINGS]", "# x", "VEMODCanDetectTimeout=2",
    "\xef\xbb\xbf", '"', '""', '"500"', '"500', '500"', "\\", '\\"', "\\n", " ", "\t", " 500", "500\t",
    # Of requests and forms.
    "&", "&&=", "%3D", "--", "frontier", "--frontier--", "\r\nX:\r\n", ":", "name=", '; filename="x"', MULTIPART,
    "multipart/form-data; boundary=", "text/plain", "GET", "POST", "HEAD", FORM]


def mostly(usual, *others, once_in=12):
    return st.sampled_from([usual] * (once_in - 1) * len(others) + list(others))


def often(times, strategy, *arguments):
    """For one_of, which takes the very same strategy once only."""
    return (strategy(*arguments) for _ in range(times))


def some_bytes(most):
    return st.binary(max_size=most).map(lambda data: data.decode("latin-1"))


def odd_text(most):
    repeated = st.builds(operator.mul, some_bytes(3), st.integers(0, 2000))
    return st.one_of(*often(3, st.sampled_from, [*ODD_TEXTS, "x" * most]), some_bytes(60), repeated)


NAMES = ("CanDetectTimeout", "cANdETECTtIMEOUT", "CanDetectTimeout\0", "CanDetectTimeout2")
NAME = st.one_of(*often(8, mostly, *NAMES), odd_text(5000))
VALUE = st.one_of(st.integers(0, 99999).map(str), odd_text(MEBIBYTE))
FIELD = st.tuples(NAME, VALUE)
FIELDS = st.one_of(st.tuples(FIELD), st.lists(FIELD, max_size=4), mostly([], [("n", "x")] * 500))
ENCODINGS = st.sampled_from([str, lambda text: quote(text, encoding="latin-1"),
                             lambda text: quote(text, "\r\n\0&=+;", "latin-1")])
WAYS = st.sampled_from([get, post, post_multipart])
LENGTHS = mostly("{}", " {}", "+{}", "000000{}", "\t{}", once_in=8)
OFFSETS = mostly(0, 1, -1, 100, -100)
# Where, how many bytes are erased, what comes in their place.
EDITS = mostly(0, 1, 3, once_in=2).flatmap(lambda count: st.lists(
    st.tuples(st.integers(0, 400), st.integers(0, 8), odd_text(200000)), min_size=count, max_size=count))


def edited(text, edits):
    for at, erased, put in edits:
        at %= len(text) + 1
        text = text[:at] + put + text[at + erased:]
    return text


@st.composite
def forms(draw):
    """Well formed, then edited."""
    way, encoded = draw(WAYS), draw(ENCODINGS)
    fields = draw(FIELDS)
    if way is not post_multipart:
        fields = "&".join(f"{encoded(name)}={encoded(value)}" for name, value in fields)
    words, variables, body = way(fields)
    if way is get:
        return Request(words, {**variables, "QUERY_STRING": edited(fields, draw(EDITS))})
    body = edited(body, draw(EDITS))
    return Request(words, {**variables, "CONTENT_LENGTH": draw(LENGTHS).format(len(body) + draw(OFFSETS))}, body)


# --- Whole requests

OF_FORMS = ["REQUEST_METHOD", "QUERY_STRING", "CONTENT_TYPE", "CONTENT_LENGTH", "HTTP_COOKIE"]
META = (
    "SERVER_SOFTWARE SERVER_NAME SERVER_PROTOCOL SERVER_PORT PATH_INFO PATH_TRANSLATED SCRIPT_NAME REMOTE_HOST "
    "REMOTE_ADDR AUTH_TYPE REMOTE_USER REMOTE_IDENT HTTP_ACCEPT HTTP_USER_AGENT HTTP_REFERER HTTP_ACCEPT_LANGUAGE "
    "HTTPS REDIRECT_REQUEST REDIRECT_URL REDIRECT_STATUS GATEWAY_INTERFACE HTTP_TRANSFER_ENCODING HTTP_X LANG LC_ALL "
    "TZ").split()
# Set to another text, edited, or missing.
CHANGES = st.one_of(*often(2, st.just, {}), st.dictionaries(
    st.one_of(st.sampled_from(OF_FORMS), st.sampled_from(META)),
    st.one_of(odd_text(LONGEST_VARIABLE), EDITS, st.none()), min_size=1, max_size=4))
REQUESTS = st.one_of(forms(), forms(), st.sampled_from([request for request, _ in KNOWN.values()]))

FAKE_VM = st.one_of(
    st.just({}), st.fixed_dictionaries({"JAVA_OPTIONS": odd_text(LONGEST_VARIABLE),
                                        "JAVA_CLASSPATH": odd_text(LONGEST_VARIABLE)}),
    mostly({}, {"FAKE_VM_FAILS": "FindClass com/"},
           *({"FAKE_VM_RESULT": result, "FAKE_VM_LEAVES": leaves}
             for result in ("-1", "-5", "-2147483648") for leaves in ("", "vm", "env", "vm env"))))
# Only such as it survives, or refuses.
REAL_VM = st.fixed_dictionaries({
    "JAVA_OPTIONS": mostly("-XX:VMOptionsFile=/srv/vemo/java.options", None, "", " ", "-Xmx64m -Xss1m", "-Xmx1k",
                           "%s%n%s%n", "-D", "-Dx=\n[SETTINGS]\n", "-XX:VMOptionsFile=/nowhere", "\xff\xfe",
                           "-XX:NoSuchOption", "-agentlib:x", once_in=8),
    "JAVA_CLASSPATH": mostly("/srv/vemo/java", None, *ODD_TEXTS, "x" * LONGEST_VARIABLE, once_in=6)})


@st.composite
def requests(draw, vm):
    """By that Java VM."""
    words, variables, body = draw(REQUESTS)
    variables = {**variables, **draw(FAKE_VM if vm == "fake" else REAL_VM)}
    for name, change in draw(CHANGES).items():
        variables[name] = edited(variables.get(name, ""), change) if isinstance(change, list) else change
    # Such as a process can have.
    variables = {name: text.replace("\0", "")[:LONGEST_VARIABLE - len(name) - 2]
                 for name, text in variables.items() if text is not None}
    return Request(words, variables, body)
