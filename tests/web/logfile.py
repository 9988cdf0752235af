"""The log file as its readers see it: by columns."""

import re

STATEMENT = re.compile(
    r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  ([A-Z]+) +cgi +(\d+) *((?:src|pages)/[A-Za-z/]+) *(\d+) +",
    re.MULTILINE)


def statements(text):
    """The process and "LEVEL SOURCE LINE MESSAGE" of each; what stands before the first has no process."""
    begin, *parts = STATEMENT.split(text)
    found = [("", begin)] if begin else []
    for level, process, source, line, message in zip(*(parts[i::5] for i in range(5))):
        found.append((process, f"{level} {source} {line} {message}"))
    return found


def foreign_lines(text):
    """Which no statement wrote: of the Java VM."""
    return [line for line in text.splitlines() if not STATEMENT.match(line)]
