"""The request's Java VM: its start from the environment, the redirection of its System.err into the log, the look-up of
the configuration class, its end."""

import pytest

import logfile
import program
from program import (CALLS, LOG, NEW_SETTINGS, REDIRECTION, expect_only_the_frame, expect_settings, expect_success,
                     get, log_lines, read, recorded_calls, run, start_lines, statements, write)

REPORTING_CLASS = "/build/tests/java/reporting"
CLASS_NOT_FOUND = "ERROR src/JavaVmWrapper 118 Class 'com/tarn/vemo/config/ConfigVemo' not found"
VM_REFUSED = "ERROR src/JavaVmWrapper 111 Can't create Java VM"
VM_END = "the Java VM ends"


def request(class_path=REPORTING_CLASS, options=None):
    """One that succeeds unless Java is in its way."""
    return get("CanDetectTimeout=500").having(JAVA_CLASSPATH=class_path, JAVA_OPTIONS=options)


# --- The real Java VM

def test_the_vm_is_the_one_in_front_of_the_programs_own():
    loaded = run(program.Request([program.PROGRAM], {"LD_TRACE_LOADED_OBJECTS": "1"})).page
    folder = f" {program.JAVA_VM}" if program.JAVA_VM else "/lib/server"
    assert f"{folder}/libjvm.so (" in loaded


@pytest.mark.parametrize("options, greeting", [
    ("", "null"), ("-Dvemo.greeting=good morning", "good morning"), ("-XX:+NoSuchOption", "null"),
    ("-Dvemo.greeting=1 -Xint", "1 -Xint"), ("-Xint -Xmx16m", "null"), ("-Xint -Dvemo.greeting=hello", "null"),
    ("-XX:+UseG1GC -Xint", "null")])
def test_the_options_are_one_option_that_reaches_the_vm_or_is_ignored(options, greeting):
    assert run(request(options=options)).status == 0
    assert log_lines() == [*start_lines(options, REPORTING_CLASS), REDIRECTION, f"initialised, greeting {greeting}",
                           VM_END]


@pytest.mark.parametrize("options", ["-Xmx64m -Xss1m", "-XX:StringTableSize=1024 -Xint",
                                     "-XX:VMOptionsFile=/srv/vemo/java.options -Xint"])
def test_a_later_option_in_the_text_is_refused_where_the_first_takes_a_number_or_a_file(options):
    expect_only_the_frame(run(request(options=options)))
    assert log_lines() == [*start_lines(options, REPORTING_CLASS), VM_REFUSED]


def test_an_option_that_the_vm_cannot_run_with_ends_the_process_and_is_reported_in_the_page():
    result = run(request(options="-Xmx1k"))
    assert result.status == 1
    assert "</div>\nError occurred during initialization of VM\n" in result.page
    assert "</body>" not in result.page
    assert log_lines() == start_lines("-Xmx1k", REPORTING_CLASS)


def test_without_a_class_path_the_working_folder_is_searched():
    expect_only_the_frame(run(request(None)))
    assert statements() == [*start_lines(class_path="(null)"), REDIRECTION, CLASS_NOT_FOUND]
    expect_success(run(request(None), cwd="/srv/vemo/java"))
    expect_settings(NEW_SETTINGS)


def test_a_class_path_has_several_entries():
    expect_success(run(request("/nowhere:/srv/vemo/java")))
    expect_settings(NEW_SETTINGS)


def test_a_missing_class_is_reported_then_described_in_the_log():
    result = run(request("/nowhere"))
    expect_only_the_frame(result)
    assert result.error == 'Exception in thread "main" '  # what the VM writes past System.err
    assert statements() == [*start_lines(class_path="/nowhere"), REDIRECTION, CLASS_NOT_FOUND]
    assert "NoClassDefFoundError: com/tarn/vemo/config/ConfigVemo" in log_lines()[6]
    assert "com.tarn.vemo.config.ConfigVemo" in "".join(logfile.foreign_lines(read(LOG)))


def test_a_class_that_fails_to_initialise_is_not_found_and_described_before_the_vm_ends():
    result = run(request(options="-Dvemo.greeting=failure"))
    assert (result.page, result.status) == (f"{program.FRAME_OPENING}{VM_END}\n{program.FRAME_CLOSING}", 1)
    lines = log_lines()[5:]
    assert lines[:3] == ["initialised, greeting failure", CLASS_NOT_FOUND, "java.lang.ExceptionInInitializerError"]
    assert lines.count("Caused by: java.lang.IllegalStateException: no configuration today") == 1
    assert lines[-1] == VM_END


def test_system_err_is_appended_to_the_log_and_system_out_is_the_page():
    write(LOG, "an earlier request\n")
    result = run(request())
    assert result.error == ""
    assert result.page.endswith(f"</div>\n{VM_END}\n</body>\n</html>\n")
    assert log_lines() == ["an earlier request", *start_lines(class_path=REPORTING_CLASS), REDIRECTION,
                           "initialised, greeting null", VM_END]


# --- The fake Java VM: what is called, and what is not

START_CALLS = ["JNI_CreateJavaVM version 10002 options 1 ignoreUnrecognized 1",
               "option -Djava.class.path=/srv/vemo/java"]
# Each call of the redirection, and what is logged when it fails; None: the program does not check it.
STEPS = [
    ("FindClass java/io/FileOutputStream", "159 Class 'java.io.FileOutputStream' not found"),
    ("GetMethodID java/io/FileOutputStream.<init>(Ljava/lang/String;Z)V", "167 Methode '<init>' not found"),
    ("NewStringUTF /tmp/cgi.log", None),
    ("NewObjectV java/io/FileOutputStream.<init>(Ljava/lang/String;Z)V(/tmp/cgi.log, true)",
     "175 Can't create output stream"),
    ("FindClass java/io/PrintStream", "182 Class 'java.io.PrintStream' not found"),
    ("GetMethodID java/io/PrintStream.<init>(Ljava/io/OutputStream;)V", "190 Methode '<init>' not found"),
    ("NewObjectV java/io/PrintStream.<init>(Ljava/io/OutputStream;)V(new java/io/FileOutputStream)",
     "196 Can't create print stream"),
    ("FindClass java/lang/System", "203 Class 'java.lang.System' not found"),
    ("GetStaticMethodID java/lang/System.setErr(Ljava/io/PrintStream;)V", "211 Methode 'setErr' not found"),
    ("CallStaticVoidMethodV java/lang/System.setErr(Ljava/io/PrintStream;)V(new java/io/PrintStream)", None)]
REDIRECTION_CALLS = [call for call, _ in STEPS]
LOOK_UP_CALL = "FindClass com/tarn/vemo/config/ConfigVemo"
END_CALLS = ["ExceptionOccurred", "DestroyJavaVM"]
END_CALLS_WITH_EXCEPTION = ["ExceptionOccurred", "ExceptionDescribe", "DestroyJavaVM"]


def run_fake(calls=CALLS, **variables):
    """With what standin/preload/FakeVm.cpp does by these variables."""
    fake = get("CanDetectTimeout=500").by("fake").having(FAKE_VM_CALLS=str(calls))
    return run(fake.having(**variables))


def expect_success_by(result, *calls):
    expect_success(result)
    expect_settings(NEW_SETTINGS)
    assert recorded_calls() == list(calls)


def errors():
    return [statement for statement in statements() if statement.startswith("ERROR")]


@pytest.mark.parametrize("result", ["0", "1"])
def test_a_fake_vm_is_called_step_by_step(result):
    expect_success_by(run_fake(FAKE_VM_RESULT=result), *START_CALLS, *REDIRECTION_CALLS, LOOK_UP_CALL, *END_CALLS)


def test_a_fake_vm_is_started_after_the_frame_is_opened_and_destroyed_before_it_is_closed():
    page = run_fake("/dev/stdout").page
    assert '<div style="clear:both" ></div>\nJNI_CreateJavaVM ' in page
    assert page.endswith("</div>\nExceptionOccurred\nDestroyJavaVM\n</body>\n</html>\n")


def test_a_fake_vms_missing_class_is_reported_then_described_then_the_vm_destroyed():
    expect_only_the_frame(run_fake(LOG, FAKE_VM_FAILS=LOOK_UP_CALL))
    assert log_lines()[-5:] == [LOOK_UP_CALL, CLASS_NOT_FOUND, *END_CALLS_WITH_EXCEPTION]


@pytest.mark.parametrize("failing, calls", [
    ("CallStaticVoidMethodV", REDIRECTION_CALLS),
    ("NewStringUTF", [call.replace("(/tmp/cgi.log, ", "(null, ") for call in REDIRECTION_CALLS])])
def test_a_failing_fake_step_that_is_not_looked_at_stops_nothing(failing, calls):
    expect_success_by(run_fake(FAKE_VM_FAILS=failing), *START_CALLS, *calls, LOOK_UP_CALL, *END_CALLS_WITH_EXCEPTION)
    assert errors() == []


@pytest.mark.parametrize("misses_class", [False, True], ids=["with the class", "without it"])
@pytest.mark.parametrize("call, error", [step for step in STEPS if step[1]])
def test_a_failing_fake_step_ends_the_redirection_alone(call, error, misses_class):
    result = run_fake(FAKE_VM_FAILS=f"{call}\n{LOOK_UP_CALL}" if misses_class else call)
    done = REDIRECTION_CALLS[:REDIRECTION_CALLS.index(call) + 1]
    calls = [*START_CALLS, *done, LOOK_UP_CALL, *END_CALLS_WITH_EXCEPTION]
    if misses_class:
        expect_only_the_frame(result)
        assert recorded_calls() == calls
    else:
        expect_success_by(result, *calls)
    assert errors() == [f"ERROR src/JavaVmWrapper {error}"] + misses_class * [CLASS_NOT_FOUND]


@pytest.mark.parametrize("options, class_path", [
    ("-Xmx16m", "/srv/vemo/java"), ("", "/srv/vemo/java"), (" -Xmx64m  -Xss1m ", "/srv/vemo/java"), (None, None),
    (None, "/a b:/c %s.jar:")])
def test_a_fake_vm_gets_the_option_unchanged_before_the_class_path(options, class_path):
    given = [f"option {options}"] if options is not None else []
    given.append(f"option -Djava.class.path={class_path or ''}")
    result = run_fake(JAVA_OPTIONS=options, JAVA_CLASSPATH=class_path)
    expect_success_by(result, f"JNI_CreateJavaVM version 10002 options {len(given)} ignoreUnrecognized 1", *given,
                      *REDIRECTION_CALLS, LOOK_UP_CALL, *END_CALLS)
    options, class_path = ("(null)" if text is None else text for text in (options, class_path))
    assert statements() == [*start_lines(options, class_path), REDIRECTION]


@pytest.mark.parametrize("result, leaves, calls", [
    ("-1", "", []), ("-3", "", []), ("-4", "", []), ("-1", "vm env", END_CALLS), ("-1", "vm", ["DestroyJavaVM"]),
    ("-1", "env", ["ExceptionOccurred"])])
def test_a_refused_fake_vm_is_reported_and_destroyed_where_it_is_there_all_the_same(result, leaves, calls):
    expect_only_the_frame(run_fake(FAKE_VM_RESULT=result, FAKE_VM_LEAVES=leaves))
    assert recorded_calls() == [*START_CALLS, *calls]
    assert log_lines() == [*start_lines(), VM_REFUSED]
