"""Calls of the configuration class's static methods, in the real Java VM and in the fake one, by JavaCalls.cpp."""

import re

import pytest

import logfile
import program
from program import CALLS, LOG, log_lines, read, recorded_calls, run, statements

CALLING_CLASS = "/build/tests/java/calling"
CLASS_WITHOUT = "/build/tests/java/without"
# Two overloads for a text and two for a number, the literal ones by a C string. The log has a line of each call, and
# another when there is no such method.
LINES = {"text": (226, 232), "text-literal": (249, 255), "int": (273, 277), "int-literal": (293, 297)}


def request(*calls, class_path=CALLING_CLASS):
    return program.Request(["/build/tests/java-calls", *calls], {"JAVA_CLASSPATH": class_path})


def call_statements():
    """All that follow the VM's start."""
    return statements()[len(program.start_lines()):]


def foreign_lines():
    return logfile.foreign_lines(read(LOG))


def entry(line, message):
    return f"DEBUG src/JavaVmWrapper {line} {message}"


def not_found(line, method):
    return f"ERROR src/JavaVmWrapper {line} Methode '{method}' not found"


# --- The real Java VM

@pytest.mark.parametrize("overload, method, text", [
    ("text", "getText", "a text"), ("text-literal", "getText", "a text"), ("int", "getNumber", "42"),
    ("int-literal", "getNumber", "42"), ("int", "getLeastNumber", "-2147483648"), ("text", "getEmptyText", ""),
    ("text", "getTextBeyondLatin1", "\xC3\xA9\xE2\x82\xAC\xED\xA0\xBD\xED\xBA\x97"),
    ("text", "getTextWithZero", "a\xC0\x80b")])
def test_a_call_gives_the_result_in_modified_utf_8(overload, method, text):
    result = run(request(overload, method))
    assert (result.page, result.status) == (f"1 {text}\n", 0)
    assert call_statements() == [entry(LINES[overload][0], f"CallFunction {method}")]
    assert foreign_lines() == []


def test_two_calls_are_of_one_class():
    result = run(request("text", "getCountedText", "text", "getCountedText"))
    assert (result.page, result.status) == ("1 call 1\n1 call 2\n", 0)
    assert call_statements() == 2 * [entry(226, "CallFunction getCountedText")]
    assert foreign_lines() == []


@pytest.mark.parametrize("overload, method, class_path", [
    *((overload, "getNothing", CALLING_CLASS) for overload in LINES),
    ("text", "getNumber", CALLING_CLASS), ("int", "getText", CALLING_CLASS), ("text", "getText", CLASS_WITHOUT)])
def test_a_missing_method_is_false_with_the_result_unchanged_and_described_at_the_end(overload, method, class_path):
    result = run(request(overload, method, class_path=class_path))
    assert (result.page, result.status) == ("0 unset\n" if overload.startswith("text") else "0 -1\n", 0)
    called, missing = LINES[overload]
    assert call_statements() == [entry(called, f"CallFunction {method}"), not_found(missing, method)]
    # Which words stand around the method's name depends on the JDK.
    assert any(re.match(r"java\.lang\.NoSuchMethodError: .*get", line) for line in foreign_lines())


def test_address_queries_return_what_the_class_returns():
    assert run(request("lan", "wlan")).page == "192.0.2.7\n198.51.100.9\n"
    assert call_statements() == [entry(313, "GetLanIp4Address"), entry(249, "CallFunction getLanIp4AddressS"),
                                 entry(327, "GetWlanIp4Address"), entry(249, "CallFunction getWlanIp4AddressS")]
    assert foreign_lines() == []


@pytest.mark.parametrize("query, line, name", [("lan", 313, "Lan"), ("wlan", 327, "Wlan")])
def test_an_address_query_without_its_method_is_empty(query, line, name):
    assert run(request(query, class_path=CLASS_WITHOUT)).page == "\n"
    method = f"get{name}Ip4AddressS"
    assert call_statements() == [entry(line, f"Get{name}Ip4Address"), entry(249, f"CallFunction {method}"),
                                 not_found(255, method)]


def test_a_method_that_throws_is_a_result_and_described_at_the_end():
    result = run(request("int", "getThrowing"))
    assert result.status == 0
    assert result.page.startswith("1 ")
    assert call_statements() == [entry(273, "CallFunction getThrowing")]
    assert "java.lang.IllegalStateException: no number today" in foreign_lines()
    assert "ConfigVemo.getThrowing" in log_lines()[-1]


def test_a_text_method_that_returns_null_ends_the_process_with_a_report_in_the_page():
    result = run(request("text", "getNullText").having(JAVA_OPTIONS="-XX:-CreateCoredumpOnCrash"))
    assert result.status != 0
    assert "A fatal error has been detected" in result.page
    assert call_statements() == [entry(226, "CallFunction getNullText")]


def test_the_end_waits_for_the_threads_of_the_class():
    result = run(request("int", "startThread"))
    assert (result.page, result.status) == ("1 1\n", 0)
    assert foreign_lines() == ["the thread ends"]


@pytest.mark.namespaces("the machine's own network has addresses that we cannot foretell")
def test_the_devices_own_class_gives_an_address_or_none():
    """The sandbox has a loopback interface and no other."""
    assert run(request("lan", "wlan", class_path="/srv/vemo/java")).page == "\n\n"
    assert not any(statement.startswith("ERROR") for statement in statements())


# --- The fake Java VM: what is called, and what is not

TEXT_METHOD = "com/tarn/vemo/config/ConfigVemo.getIt()Ljava/lang/String;"
NUMBER_METHOD = "com/tarn/vemo/config/ConfigVemo.getIt()I"


def fake_calls_of(overload, failing=""):
    """Those that follow the look-up of the class."""
    fake = request(overload, "getIt").by("fake").having(FAKE_VM_CALLS=str(CALLS), FAKE_VM_FAILS=failing)
    assert run(fake).status == 0
    calls = recorded_calls()
    return calls[calls.index("FindClass com/tarn/vemo/config/ConfigVemo") + 1:]


def test_the_characters_of_a_text_are_not_given_back_to_a_fake_vm():
    assert fake_calls_of("text") == [
        f"GetStaticMethodID {TEXT_METHOD}", f"CallStaticObjectMethodV {TEXT_METHOD}", "GetStringUTFChars a text",
        "ExceptionOccurred", "DestroyJavaVM"]


def test_neither_null_nor_an_exception_of_a_fake_text_method_is_looked_for():
    assert fake_calls_of("text", "CallStaticObjectMethodV") == [
        f"GetStaticMethodID {TEXT_METHOD}", f"CallStaticObjectMethodV {TEXT_METHOD}", "GetStringUTFChars null",
        "ExceptionOccurred", "ExceptionDescribe", "DestroyJavaVM"]


def test_an_exception_of_a_fake_number_method_is_not_looked_for():
    assert fake_calls_of("int", "CallStaticIntMethodV") == [
        f"GetStaticMethodID {NUMBER_METHOD}", f"CallStaticIntMethodV {NUMBER_METHOD}",
        "ExceptionOccurred", "ExceptionDescribe", "DestroyJavaVM"]
