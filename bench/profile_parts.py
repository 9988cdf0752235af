"""Reads what `perf script` tells of each sample, and prints the shares of a request's parts."""

import collections
import re
import sys

# Who else runs there.
OTHERS = {"sandbox", "bash", "bwrap", "sh", "mkdir", "dirname", "realpath", "readlink", "perf", "perf-exec"}
PARTS = [
    ("kernel", r"\[kernel|\[guest\.kernel|\[vdso\]|\.ko\]?$|^\[\w+\]$"),
    ("libjvm", r"libjvm\.so"),
    ("loader", r"/ld-linux|/ld-musl|/ld\."),
    ("C library", r"/libc\.so|/libm\.so|/libpthread"),
    ("ours and its libraries", r"setobdconf|cgicc|xml2|icu|stdc\+\+|libgcc|liblzma|libz\.so"),
    ("the JDK's other libraries", r"/lib(java|jimage|nio|net|zip|jli)\.so"),
]


def part_of(place):
    for name, pattern in PARTS:
        if re.search(pattern, place):
            return name
    # Memory without a file: only the VM has code there.
    return "generated code"


def main():
    requests = int(sys.argv[1])
    parts, symbols = collections.Counter(), collections.Counter()
    for line in sys.stdin:
        match = re.match(r"\s*(.*?)\s+(\d+)\s+[0-9a-f]+\s+(.*) \((.*)\)$", line)
        if not match or match[1] in OTHERS:
            continue
        part = part_of(match[4])
        parts[part] += 1
        if part != "generated code":
            symbols[f"{match[3]} ({part})"] += 1
    total = sum(parts.values())
    if total == 0:
        raise SystemExit("bench: no samples")
    print(f"{total} samples of {requests} requests\n")
    for name, count in parts.most_common():
        print(f"{count / total:6.1%}  {name}")
    print()
    for name, count in symbols.most_common(20):
        print(f"{count / total:6.1%}  {name}")


if __name__ == "__main__":
    main()
