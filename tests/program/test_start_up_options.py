"""The Java VM's start-up options that the device ships, with the real Java VM: with them the page is served, and
nothing that the VM reports about bad ones gets into it."""

import pathlib
import platform
import re
import shutil

import pytest

import logfile
import program
from program import LOG, SETTINGS, expect_only_the_frame, expect_success, get, read, run, statements, write

SHIPPED = "/srv/vemo/java.options"
DEVICES_CLASS = "/srv/vemo/java"


def request(options_file=SHIPPED, class_path=DEVICES_CLASS):
    return get("CanDetectTimeout=500").having(JAVA_OPTIONS=f"-XX:VMOptionsFile={options_file}",
                                              JAVA_CLASSPATH=class_path)


def performance_data():
    """What the VM leaves in the temporary folder without the option against it."""
    return list(pathlib.Path("/tmp").glob("hsperfdata*"))


def expect_nothing_of_the_vm_in(page):
    """The page as far as it came, cut or the frame alone or all of it, and nothing else."""
    assert page.startswith("Content-Type: text/html\n")
    assert page == program.FRAME_ONLY or program.success_page().startswith(page)


def test_they_serve_the_page_and_leave_nothing_in_the_temporary_folder():
    for folder in performance_data():
        shutil.rmtree(folder)
    expect_success(run(request()))
    assert f"DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: -XX:VMOptionsFile={SHIPPED}" in statements()
    assert performance_data() == []


def test_they_are_what_the_web_server_hands_over():
    assert re.search(r'"JAVA_OPTIONS" +=> "-XX:VMOptionsFile=" \+ var.vemo_java_options',
                     read("/srv/vemo/lighttpd-site.conf"))
    assert f'var.vemo_java_options = "{SHIPPED}"' in read("/srv/vemo/lighttpd-paths.conf")


def test_they_keep_a_missing_class_path_off_the_page():
    expect_only_the_frame(run(request(class_path="/nowhere")))


def test_a_missing_file_of_them_is_kept_off_the_page():
    result = run(request("/nowhere/java.options"))
    expect_nothing_of_the_vm_in(result.page)
    assert result.status == 1
    assert not SETTINGS.exists()


def test_they_change_no_result_of_the_vms():
    """They switch off what the processor does by itself."""
    computing = request(class_path="/build/tests/java/computing")
    assert run(computing).status == 0
    results = logfile.foreign_lines(read(LOG))
    program.reset_device()
    assert run(computing.having(JAVA_OPTIONS=None)).status == 0
    assert len(results) == 57
    assert all(line.startswith("result ") for line in results)
    assert "result MD5 of abc [900150983cd24fb0d6963f7d28e17f72]" in results
    assert results == logfile.foreign_lines(read(LOG))


if platform.machine() == "x86_64":
    # Emulated: SSE2 and little more, SSE4.2, AVX2, all that the emulator has.
    @pytest.mark.parametrize("kind", ["qemu64", "Nehalem", "Haswell", "max"])
    def test_each_processor_serves_the_page_with_them(kind):
        result = run(request()._replace(words=["/usr/bin/qemu-x86_64", "-cpu", kind, program.PROGRAM]))
        assert (result.page, result.status) == (program.success_page(), 0)


@pytest.mark.parametrize("option", [
    "-javaagent:/nowhere/agent.jar", "-agentlib:nowhere", "-agentpath:/nowhere.so", "-Xmx1k", "-Xms1g", "-Xmx9999999g",
    "-Xss1", "-XX:SharedArchiveFile=/nowhere.jsa", "-XX:SharedArchiveFile=/srv/vemo/java.options",
    "-XX:+UseSerialGC", "-XX:+UseLargePages", "-XX:NoSuchOption=1", "-Xbootclasspath/a:/nowhere",
    "--add-modules=no.such", "-version", "-Xlog:class+load:stderr", "-XX:+PrintFlagsFinal", "-XX:Flags=/nowhere",
    "plain words"])
def test_a_bad_option_is_kept_off_the_page(option, tmp_path):
    write(tmp_path / "java.options", f"{read(SHIPPED)}{option}\n")
    expect_nothing_of_the_vm_in(run(request(tmp_path / "java.options")).page)
