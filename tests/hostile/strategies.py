"""Hostile requests: known ones, and the strategies that make others. Texts stand for bytes, as ISO 8859-1."""

import operator
from urllib.parse import quote

from hypothesis import strategies as st

from program import Request, get, post

FORM = "CanDetectTimeout=500"
MEBIBYTE = 1 << 20
LONGEST_VARIABLE = 131072  # of the kernel: name, equals sign and end included
DISPOSITION = 'Content-Disposition: form-data; name="CanDetectTimeout"'
MULTIPART = "multipart/form-data; boundary=frontier"


# --- Known requests, each of which once hurt or might, and how they end

def form(**variables):
    return post(FORM).having(**variables)


def announcing(length, body=FORM):
    return post(body).having(CONTENT_LENGTH=length)


def value(text):
    """The value as it is in the query string."""
    return get("CanDetectTimeout=" + text)


def part(text, boundary="frontier"):
    """A body of one part: header lines, an empty one and the value, say."""
    return post(f"--{boundary}\r\n{text}\r\n--{boundary}--\r\n", f"multipart/form-data; boundary={boundary}")


KNOWN = {
    "no environment": (get()._replace(variables={}), "absent"),
    "no method": (get(FORM).having(REQUEST_METHOD=None), "stored"),
    "method in lower case": (form(REQUEST_METHOD="post"), "stored"),
    "no type": (form(CONTENT_TYPE=None), "stored"),
    "broken cookies": (get(FORM).having(HTTP_COOKIE=";;a;b==;CanDetectTimeout=1; ;\xff"), "stored"),
    "garbage as time zone": (get(FORM).having(TZ=":/etc/passwd%s\xff"), "stored"),
    "format directives for Java": (get(FORM).having(JAVA_OPTIONS="%s%n%x", JAVA_CLASSPATH="%s%n%x%1000000d"), "stored"),
    "log lines in JAVA_OPTIONS": (get(FORM).having(
        JAVA_OPTIONS="-Da\n2026-01-01 00:00:00.000000  ERROR     cgi            1     "
                     "src/SetObdConf           50    forged"), "stored"),
    "no Java and a body unread": (form(FAKE_VM_RESULT="-1"), "frame only"),

    "length missing": (form(CONTENT_LENGTH=None), "absent"),
    "length zero": (announcing("0"), "absent"),
    "length of words": (announcing("a lot"), "absent"),
    "length minus one": (announcing("-1"), "aborted"),
    "length of 10 gigabytes": (announcing("10000000000"), "aborted"),
    "length beyond 64 bits": (announcing("99999999999999999999999999999999"), "aborted"),
    "body longer than announced": (announcing("20", "CanDetectTimeout=5000000"), "stored"),
    "body missing": (announcing("20", ""), "aborted"),
    "body one byte short": (announcing("21"), "aborted"),
    "body much shorter": (announcing("1000"), "aborted"),

    "field twice": (get("candetecttimeout=first&CanDetectTimeout=second"), "stored"),
    "NUL in the name": (get("CanDetectTimeout%00=500"), "absent"),
    "escape cut short": (value("5%4"), "stored"),
    "escape of no digits": (value("%zz%-1"), "stored"),
    "value like a section": (value("[CAN]"), "stored"),
    "backslashes behind a quote": (value(r'"\\n\)'), "stored"),
    "value of blanks": (value("%20%09+"), "stored"),
    "value of markup": (value("<script>alert(1)</script>"), "stored"),
    "value in quotes": (value('"500"'), "stored"),
    "line ends and NUL in the value": (value("1%0D%0AVEMODOther=1%0A[OTHER]%0A%00"), "stored"),

    "multipart without a boundary": (post(FORM, "multipart/form-data"), "absent"),
    "empty boundary": (part(DISPOSITION + "\r\n\r\n500", ""), "stored"),
    "boundary in the value": (part(DISPOSITION + "\r\n\r\n500 --frontier 600"), "stored"),
    "part with a file name": (part(DISPOSITION + '; filename="x"\r\n\r\n500'), "absent"),
    "name without quotes": (part("Content-Disposition: form-data; name=CanDetectTimeout\r\n\r\n500"), "absent"),
    "part without a disposition": (part("\r\n500"), "aborted"),
    "part without an empty line": (part(DISPOSITION + "\r\n500"), "aborted"),
    "part without an end": (post(f"--frontier\r\n{DISPOSITION}\r\n\r\n500", MULTIPART), "absent"),
    "bare newlines": (post(f"--frontier\n{DISPOSITION}\n\n500\n--frontier--\n", MULTIPART), "absent"),
}


# --- What others are made of. What is usual comes first: a failing request is reduced to it.

def mostly(usual, *others, once_in=12):
    return st.sampled_from([usual] * (once_in - 1) * len(others) + list(others))


def rarely(once_in):
    return mostly(False, True, once_in=once_in)


def some_bytes(most):
    return st.binary(max_size=most).map(latin_1)


def latin_1(data):
    return data.decode("latin-1")


def repeated(most):
    return st.builds(operator.mul, st.binary(max_size=3).map(latin_1), st.integers(0, most // 3))


ODD_TEXTS = [
    "", "-1", "0", "+500", "1e3", "0x10", "99999999999999999999999999", "NaN", latin_1(bytes(range(256))), "a\0b\0",
    "<script>alert(1)</script>", "&amp;<>\"'", "</body></html>", "<!--",
    "%s%n%x", "%", "%4", "%zz", "%00", "$(reboot)", "`reboot`", "; reboot"]
ODD_SETTINGS = [
    "1\nVEMODOther=1", "1\r\n[OTHER]\r\nx=1", "\n", "\r", "\r\n\r\n", "\n[CAN]", "[SETTINGS]", "; x", "# x", "=",
    "VEMODCanDetectTimeout=2", "\xef\xbb\xbf", '"', '""', '"500"', '"500', '500"', "\\", '\\"', "\\n", '"\\',
    " ", "\t", " 500", "500\t", "  \t  ", " \n "]
NAMES = st.one_of(
    mostly("CanDetectTimeout", "candetecttimeout", "CANDETECTTIMEOUT", "cANdETECTtIMEOUT", "", " ", "CanDetectTimeout ",
           " CanDetectTimeout", "CanDetectTimeou", "CanDetectTimeout2", "CanDetectTimeout[]", "VEMODCanDetectTimeout",
           "CanDetectTimeout\0", "CanDetect\0Timeout", once_in=3),
    mostly("CanDetectTimeout", "n" * 5000, once_in=8), some_bytes(40))
VALUES = st.one_of(st.integers(0, 99999).map(str), st.sampled_from(ODD_TEXTS), st.sampled_from(ODD_SETTINGS),
                   some_bytes(60), repeated(5000))
FIELD = st.tuples(NAMES, VALUES)
FIELDS = st.one_of(
    st.tuples(FIELD), st.lists(FIELD, max_size=4),
    mostly([], [("CanDetectTimeout", "5" * MEBIBYTE)], [("n" * MEBIBYTE, "500")], [("n", "x")] * 500))
GARBAGE = st.one_of(st.sampled_from(ODD_TEXTS), st.sampled_from(ODD_SETTINGS), some_bytes(100), repeated(3000),
                    mostly("", "x" * LONGEST_VARIABLE))


# --- Encoded fields

def all_escaped(text):
    return "%" + text.encode("latin-1").hex("%") if text else ""


ENCODINGS = st.sampled_from([str, all_escaped, lambda text: quote(text, encoding="latin-1"),
                             lambda text: quote(text, "\r\n\0&=+;", "latin-1")])
BEGIN = mostly("", "&", "=", "&&;")
EQUALS = mostly("=", "", "==", "%3D", "&", "= ")
END = mostly("&", "", ";", "&&", "&=", "%26", "&%", "&%4", "&+")


@st.composite
def url_encoded(draw):
    encoded = draw(ENCODINGS)
    pairs = (encoded(name) + draw(EQUALS) + encoded(value) + draw(END) for name, value in draw(FIELDS))
    return draw(BEGIN) + "".join(pairs)


LINE_END = mostly("\r\n", "\n", "\r", "", "\r\n\r\n", " \r\n")
PART = st.tuples(
    mostly("--", "", "-", "---"), st.just("frontier"), LINE_END,
    mostly("", "Content-Type: text/plain\r\n", "X:\r\n", ":\r\n", "\0"),
    mostly("Content-Disposition: ", "content-disposition: ", "Content-Disposition:", ""),
    mostly("form-data", "attachment", "", "form-data; form-data"),
    mostly("; name=", "; NAME=", ";name=", "; ", "; name =", "; name"),
    mostly('"NAME"', "NAME", "'NAME'", '""NAME""', '"NAME'),
    mostly("", '; filename=""', '; filename="/etc/passwd"', "; filename", '; name="Other"', ";", "\0"),
    LINE_END,
    mostly("", "Content-Type: text/plain\r\n", "Content-Type:\r\n", "no colon\r\n",
           "Content-Type: multipart/mixed; boundary=frontier\r\n", "Content-Transfer-Encoding: base64\r\n"),
    mostly("\r\n", "", "\n")).map("".join)
PREAMBLE = mostly("", "preamble\r\n")
CLOSING = mostly("--frontier--\r\n", "--frontier--", "", "--", "--frontier", "--frontier-")
IS_CUT = rarely(10)


@st.composite
def multipart(draw):
    text = draw(PREAMBLE)
    for name, value in draw(FIELDS):
        text += draw(PART).replace("NAME", name) + value + draw(LINE_END)
    text += draw(CLOSING)
    return text[:draw(st.integers(0, len(text)))] if draw(IS_CUT) else text


# --- Bodies

ODD_LENGTHS = st.one_of(st.sampled_from([
    "-1", "-2", "-2147483648", "-9223372036854775808", "-0", "--1",
    "2147483647", "2147483648", "4294967295", "4294967296", "10000000000", "9223372036854775807",
    "9223372036854775808", "18446744073709551615", "18446744073709551616", "9" * 32,
    "", " ", "x", "a lot", "500x", "0x10", "1e3", "1.5", "\n5", "%d", "NaN"]), GARBAGE)
LENGTHS = mostly("{}", " {}", "+{}", "000000{}", "\t{}", once_in=8)
OFFSETS = mostly(0, 1, -1, 100, -100, once_in=4)
HAS_ODD_LENGTH = rarely(4)
FORM_TYPES = mostly(
    "application/x-www-form-urlencoded", "", "application/x-www-form-urlencoded; charset=utf-16",
    "APPLICATION/X-WWW-FORM-URLENCODED", "text/plain", "application/json", "application/x-www-form-urlencoded2",
    once_in=8)
MULTIPART_TYPES = mostly(
    MULTIPART, 'multipart/form-data; boundary="frontier"', "multipart/form-data", "multipart/form-data;",
    "multipart/form-data; boundary", "Multipart/Form-Data", "multipart/form-data; boundary=", "multipart/mixed",
    "multipart/form-data; charset=x; boundary=frontier", once_in=8)
BOUNDARIES = mostly("frontier", "", "-", "a b", '"frontier"', "frontier;", "\xff", once_in=8)
METHODS = mostly("POST", "GET", None, "", "post", "Post", "POST ", "HEAD", "PUT", "DELETE", "OPTIONS", "TRACE",
                 "CONNECT", "PATCH", "POST\n", "GETPOST", once_in=3)
QUERIES = st.one_of(st.none(), url_encoded(), some_bytes(100), mostly("", "x" * LONGEST_VARIABLE))
MORE = mostly("", "x" * 200000, once_in=20)


@st.composite
def bodies(draw):
    if draw(st.booleans()):
        boundary = draw(BOUNDARIES)
        body = draw(multipart()).replace("frontier", boundary)
        request = post(body, draw(MULTIPART_TYPES).replace("frontier", boundary))
    else:
        body = draw(url_encoded())
        request = post(body, draw(FORM_TYPES))
    length = draw(ODD_LENGTHS) if draw(HAS_ODD_LENGTH) else draw(LENGTHS).format(len(body) + draw(OFFSETS))
    request = request.having(CONTENT_LENGTH=length, REQUEST_METHOD=draw(METHODS), QUERY_STRING=draw(QUERIES))
    return request._replace(body=body + draw(MORE))


# --- Whole requests

COOKIE = st.tuples(NAMES, mostly("=", "", "==", " = "), VALUES, mostly("; ", ";", ",", ";;", "", ";\n")).map("".join)
COOKIES = st.lists(COOKIE, max_size=5).map("".join)
META = (
    "SERVER_SOFTWARE SERVER_NAME SERVER_PROTOCOL SERVER_PORT PATH_INFO PATH_TRANSLATED SCRIPT_NAME REMOTE_HOST "
    "REMOTE_ADDR AUTH_TYPE REMOTE_USER REMOTE_IDENT HTTP_ACCEPT HTTP_USER_AGENT HTTP_REFERER HTTP_ACCEPT_LANGUAGE "
    "HTTPS REDIRECT_REQUEST REDIRECT_URL REDIRECT_STATUS GATEWAY_INTERFACE HTTP_TRANSFER_ENCODING HTTP_X LANG LC_ALL "
    "TZ").split()
MORE_VARIABLES = st.one_of(st.just({}), st.dictionaries(st.sampled_from(META), GARBAGE, max_size=4),
                           st.fixed_dictionaries({"HTTP_COOKIE": COOKIES}))
REQUESTS = st.one_of(st.builds(get, url_encoded()), bodies(), bodies(),
                     st.sampled_from([request for request, _ in KNOWN.values()]))

FAKE_VM = st.one_of(
    st.just({}), st.fixed_dictionaries({"JAVA_OPTIONS": GARBAGE, "JAVA_CLASSPATH": GARBAGE}),
    mostly({}, {"FAKE_VM_FAILS": "FindClass com/"},
           *({"FAKE_VM_RESULT": result, "FAKE_VM_LEAVES": leaves}
             for result in ("-1", "-5", "-2147483648") for leaves in ("", "vm", "env", "vm env"))))
# Only such as it survives, or refuses.
REAL_VM = st.fixed_dictionaries({
    "JAVA_OPTIONS": mostly("-XX:VMOptionsFile=/srv/vemo/java.options", None, "", " ", "-Xmx64m -Xss1m", "-Xmx1k",
                           "%s%n%s%n", "-D", "-Dx=\n[SETTINGS]\n", "-XX:VMOptionsFile=/nowhere", "\xff\xfe",
                           "-XX:NoSuchOption", "-agentlib:x", once_in=8),
    "JAVA_CLASSPATH": mostly("/srv/vemo/java", None, *ODD_TEXTS, *ODD_SETTINGS, "x" * LONGEST_VARIABLE, once_in=6)})

EDITS = st.lists(st.tuples(st.integers(0, 400), some_bytes(2), st.integers(0, 8), st.integers(0, 400),
                           mostly(0, 3, 40, once_in=4)), min_size=1, max_size=4)
IS_CHANGED = rarely(4)
IS_LACKING = rarely(8)


def changed(text, edits):
    """A few of its bytes erased, replaced, or copied to elsewhere."""
    for at, put, erased, source, copied in edits:
        at %= len(text) + 1
        source %= len(text) + 1
        text = text[:at] + put + text[source:source + copied] + text[at + erased:]
    return text


@st.composite
def requests(draw, vm):
    """By that Java VM."""
    words, variables, body = draw(REQUESTS)
    variables = {**variables, **draw(MORE_VARIABLES)}
    if variables and draw(IS_CHANGED):
        name = draw(st.sampled_from(list(variables)))
        variables[name] = changed(variables[name], draw(EDITS))
        body = changed(body, draw(EDITS))
    if variables and draw(IS_LACKING):
        del variables[draw(st.sampled_from(list(variables)))]
    variables |= draw(FAKE_VM if vm == "fake" else REAL_VM)
    # Such as a process can have.
    variables = {name: text.replace("\0", "")[:LONGEST_VARIABLE - len(name) - 2]
                 for name, text in variables.items() if text is not None}
    return Request(words, variables, body)
