"""The page on its two paths behind the Java VM's start: what is written, what is logged, what is stored, how it ends.
With the real Java VM."""

import program
from program import LOG, NEW_SETTINGS, SETTINGS, SUCCESS_LINES, WARNING_PAGE, get, log_lines, read, run, write

import logfile


def test_reports_the_stored_option():
    result = run(get("CanDetectTimeout=500"))
    program.expect_success(result)
    assert len(result.page) == 960
    program.expect_settings(NEW_SETTINGS)
    assert log_lines() == ["DEBUG src/SetObdConf 30 main",
                           "DEBUG src/JavaVmWrapper 73 OpenJavaVM",
                           "DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: (null)",
                           "DEBUG src/JavaVmWrapper 99 JAVA_CLASSPATH:/srv/vemo/java",
                           "DEBUG src/JavaVmWrapper 155 ChangeStdErr"]


def test_warns_without_the_field():
    assert run(get()) == (WARNING_PAGE, "", 1)
    assert not SETTINGS.exists()
    assert log_lines() == [*SUCCESS_LINES, "ERROR src/SetObdConf 50 Option CanDetectTimeout not set",
                           "DEBUG src/SetObdConf 88 PrintBackButton"]


def test_every_log_line_is_in_the_layout_and_of_one_process():
    run(get())
    logged = [logfile.parse(line) for line in read(LOG).split("\n")[:-1]]
    assert len(logged) == 7
    assert {statement.handler for statement in logged} == {"cgi"}
    assert len({statement.process for statement in logged}) == 1


def test_keeps_the_log_of_earlier_requests():
    write(LOG, "an earlier request\n")
    run(get().by("fake"))
    assert read(LOG).startswith("an earlier request\n2")


def test_logs_where_a_link_in_place_of_the_log_file_leads(tmp_path):
    LOG.symlink_to(tmp_path / "elsewhere")
    run(get().by("fake"))
    assert "Option CanDetectTimeout not set\n" in read(tmp_path / "elsewhere")
