"""Reads the log statements out of C++ sources: LogFormater(LEVEL, SOURCE, NUMBER).Log(HANDLER, FORMAT, ...).

A level, a number or a text may be a parameter of the function around the statement; the calls of that
function in the same file then tell it, step by step. What cannot be read so is an error, never left
out.
"""

import re
from typing import NamedTuple

TOKEN = re.compile(
    r"""
      (?P<skip>\s+|//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:\\\n|[^\n])*)
    | (?P<string>"(?:\\.|[^"\\\n])*")
    | (?P<character>'(?:\\.|[^'\\\n])*')
    | (?P<number>\d[\w.']*)
    | (?P<name>~?[A-Za-z_]\w*)
    | (?P<mark>.)
    """,
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)
CONVERSION = re.compile(r"%[-+ #0]*\d*(?:\.\d+)?(?:hh|h|ll|l|z)?[a-zA-Z%]")
ANYTHING = "…"
LEVELS = {"10": "DEBUG", "20": "INFO", "30": "WARN", "40": "ERROR", "50": "FATAL"}
OPENING = {"(": ")", "[": "]", "{": "}"}


class Statement(NamedTuple):
    source: str
    number: int
    level: str  # a conditional one: "INFO or ERROR"
    text: str  # what the log shows, with an ellipsis for what only a run can tell; \n for a line break


class Parameter(NamedTuple):
    """A value that the callers of the function know."""

    name: str


class Function(NamedTuple):
    name: str
    parameters: list
    body: list  # tokens


def tokens_of(text):
    """The tokens; neighbouring string literals as one."""
    tokens = []
    for found in TOKEN.finditer(text):
        token = found[0]
        if found.lastgroup == "skip":
            continue
        if token[0] == '"' and tokens and tokens[-1][0] == '"':
            tokens[-1] = tokens[-1][:-1] + token[1:]
        else:
            tokens.append(token)
    return tokens


def end_of(tokens, begin):
    """The place of the bracket that closes the one at `begin`."""
    depth = 0
    for place in range(begin, len(tokens)):
        depth += (tokens[place] in OPENING) - (tokens[place] in OPENING.values())
        if depth == 0:
            return place
    raise ValueError("a bracket is not closed: " + " ".join(tokens[begin : begin + 20]))


def split(tokens):
    """The parts between the commas outside of brackets."""
    parts = [[]]
    depth = 0
    for token in tokens:
        depth += (token in OPENING) - (token in OPENING.values())
        if token == "," and depth == 0:
            parts.append([])
        else:
            parts[-1].append(token)
    return parts if parts != [[]] else []


def functions_of(tokens):
    """All functions that are defined in namespaces and classes."""
    functions = []
    place = head = 0
    while place < len(tokens):
        if tokens[place] in (";", "}"):
            head = place + 1
        elif tokens[place] == "{":
            header = tokens[head:place]
            end = end_of(tokens, place)
            if "(" in header:
                opening = header.index("(")
                parameters = split(header[opening + 1 : end_of(header, opening)])
                names = [re.findall(r"\w+", " ".join(part).split("=")[0])[-1:] for part in parameters]
                name = header[opening - 1]
                functions.append(Function(name, sum(names, []), tokens[place + 1 : end]))
            if "(" in header or "=" in header or "enum" in header:
                place = end  # behind it; otherwise into the namespace or class
                head = end + 1
            else:
                head = place + 1
        place += 1
    return functions


def calls_in(tokens, name):
    """For each call of `name`: its arguments, and the place behind it."""
    for place, token in enumerate(tokens[:-1]):
        if token == name and tokens[place + 1] == "(":
            end = end_of(tokens, place + 1)
            yield split(tokens[place + 2 : end]), end + 1


def constants_of(tokens):
    """The texts that have a name: NAME[] = "text"."""
    return {
        tokens[i]: tokens[i + 4]
        for i in range(len(tokens) - 4)
        if tokens[i + 1 : i + 4] == ["[", "]", "="] and tokens[i + 4][0] == '"'
    }


class Reader:
    """Of one source file."""

    def __init__(self, text, constants):
        self.tokens = tokens_of(text)
        self.constants = {**constants, **constants_of(self.tokens)}
        self.functions = functions_of(self.tokens)

    def value(self, tokens, function):
        """A literal, a Parameter, or ANYTHING."""
        if len(tokens) != 1:
            return ANYTHING
        token = self.constants.get(tokens[0], tokens[0])
        if token in function.parameters:
            return Parameter(token)
        if token[0] == '"':
            return token[1:-1]
        return token if re.fullmatch(r"\d+", token) else ANYTHING

    def level(self, tokens, function):
        names = [token[10:] for token in tokens if token.startswith("LOG_LEVEL_")]
        if names:
            return " or ".join(names)
        value = self.value(tokens, function)
        return LEVELS.get(value, value)

    def statements(self):
        found = []
        count = 0
        for function in self.functions:
            for arguments, behind in calls_in(function.body, "LogFormater"):
                count += 1
                if function.body[behind : behind + 3] != [".", "Log", "("]:
                    raise ValueError(f"{function.name}: a LogFormater that does not log at once")
                log = split(function.body[behind + 3 : end_of(function.body, behind + 2)])
                values = [self.level(arguments[0], function)]
                values += [self.value(tokens, function) for tokens in arguments[1:] + log[1:]]
                found += self.resolve(values, function)
        if count != self.tokens.count("LogFormater"):
            raise ValueError("a LogFormater that is not made in the statement that logs")
        return found

    def resolve(self, values, function, depth=0):
        """The statements that [level, source, number, format, arguments...] stands for."""
        if not any(isinstance(value, Parameter) for value in values[:4]):
            return [self.statement(values, function)]
        found = []
        for caller in self.functions:
            for arguments, _ in calls_in(caller.body, function.name):
                if len(arguments) == len(function.parameters):
                    told = dict(zip(function.parameters, arguments))
                    above = [
                        (self.value if i > 0 else self.level)(told[value.name], caller)
                        if isinstance(value, Parameter)
                        else value
                        for i, value in enumerate(values)
                    ]
                    if depth == 10:
                        raise ValueError(f"{function.name} calls itself")
                    found += self.resolve(above, caller, depth + 1)
        if not found:
            raise ValueError(f"{function.name}: nobody tells the statement's {values[:4]}")
        return found

    @staticmethod
    def statement(values, function):
        level, source, number, text, *arguments = values
        if ANYTHING in (level, source, number, text):
            raise ValueError(f"{function.name}: a statement that cannot be read: {values}")
        rest = iter(arguments)

        def show(conversion):
            if conversion[0] == "%%":
                return "%"
            argument = next(rest, ANYTHING)
            return ANYTHING if isinstance(argument, Parameter) else argument

        return Statement(source, int(number), level, CONVERSION.sub(show, text))


def read_folder(folder):
    """The statements of all sources in a folder."""
    constants = {}
    for header in sorted(folder.rglob("*.h")):
        constants.update(constants_of(tokens_of(header.read_text(encoding="utf-8"))))
    statements = []
    for file in sorted(folder.rglob("*.cpp")):
        try:
            statements += Reader(file.read_text(encoding="utf-8"), constants).statements()
        except ValueError as error:
            raise ValueError(f"{file.name}: {error}") from error
    return statements
