"""The log file as its readers see it: by columns."""

import re
from typing import NamedTuple

# The columns of a line, padded on the right. A process id of more than six digits pushes the rest to the right.
COLUMNS = re.compile(r"(.{26})  (.{10})(.{15})(\d{7,}|.{6})(.{25})(.{6})(.*)")
VALUES = (r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}", r"[A-Z]+", r"\w+", r"\d+", r"[a-z]+/[\w/]+", r"\d+", r".*")


class Statement(NamedTuple):
    """A line that a statement of our programs wrote."""
    time: str
    level: str
    handler: str
    process: str
    source: str
    number: str
    message: str

    def summary(self):
        """Without its time, handler and process: "ERROR src/SetObdConf 50 message"."""
        return f"{self.level} {self.source} {self.number} {self.message}"


def parse(line):
    """The line's statement; None when no statement wrote it."""
    if columns := COLUMNS.fullmatch(line):
        *padded, message = columns.groups()
        values = [value.rstrip(" ") for value in padded] + [message]
        if all(map(re.fullmatch, VALUES, values)):
            return Statement(*values)
    return None


def lines(text):
    """All lines in their order: statements as their summaries, others as they are."""
    return [statement.summary() if (statement := parse(line)) else line for line in text.split("\n")[:-1]]


def statements(text):
    """The process and summary of each, with the lines that follow it. What stands before the first has no process."""
    found = [("", "")]
    for line in text.split("\n")[:-1]:
        if statement := parse(line):
            found.append((statement.process, f"{statement.summary()}\n"))
        else:
            found[-1] = (found[-1][0], f"{found[-1][1]}{line}\n")
    return found if found[0][1] else found[1:]


def foreign_lines(text):
    """The lines that no statement wrote: the Java VM's."""
    return [line for line in text.split("\n")[:-1] if not parse(line)]
