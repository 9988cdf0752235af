"""Runs one command and prints what the kernel accounted for it, in one line:

    WALL FIRST_BYTE CPU PEAK FAULTS STATUS

Microseconds from its start to its end and to its first byte of output, microseconds of CPU (user and system), peak
memory in KiB, page faults, exit status (minus the signal). In a process of its own, with little in it, since the peak
of a child begins with what its parent holds.

    python3 -I -S spawn.py INPUT [NAME=VALUE...] -- COMMAND [ARGUMENT...]
"""

import os
import sys
import time

separator = sys.argv.index("--")
environment = dict(variable.split("=", 1) for variable in sys.argv[2:separator])
command = sys.argv[separator + 1:]
output, end = os.pipe()
start = time.monotonic()
child = os.posix_spawn(command[0], command, environment, file_actions=[
    (os.POSIX_SPAWN_OPEN, 0, sys.argv[1], os.O_RDONLY, 0), (os.POSIX_SPAWN_DUP2, end, 1)])
os.close(end)
first_byte = None
while os.read(output, 1 << 16):
    first_byte = first_byte or time.monotonic()
_, status, usage = os.wait4(child, 0)
wall = time.monotonic()
times = (wall - start, (first_byte or wall) - start, usage.ru_utime + usage.ru_stime)
print(*(round(seconds * 1e6) for seconds in times), usage.ru_maxrss, usage.ru_minflt + usage.ru_majflt,
      os.waitstatus_to_exitcode(status))
