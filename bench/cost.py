"""What the kernel accounted for a process, and how the costs of many runs compare."""

import pathlib
import statistics
import subprocess
import typing

SETTINGS = pathlib.Path("/app/tarn-belox/runvex/obd.conf")
LOG = pathlib.Path("/tmp/cgi.log")


class Cost(typing.NamedTuple):
    """Microseconds and KiB."""

    wall: int
    first_byte: int
    cpu: int
    peak: int
    faults: int
    status: int


def told(*command, **more):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True, **more).stdout


def spawn(command, environment, body="/dev/null", cpu=None):
    """Runs the command, on that processor core alone if one is named."""
    pinned = [] if cpu is None else ["/usr/bin/taskset", "--cpu-list", str(cpu)]
    said = told(*pinned, "/build/bench/bench-spawn", body, *command, env=environment, stderr=subprocess.DEVNULL)
    cost = Cost(*map(int, said.split()))
    if cost.status != 0:
        raise SystemExit(f"bench: {command} ended with status {cost.status}")
    return cost


def reset(is_on_disk=False):
    """The settings as shipped, the log empty. On disk: by a link, for /app is in memory here and /tmp is not."""
    SETTINGS.parent.mkdir(parents=True, exist_ok=True)
    SETTINGS.unlink(missing_ok=True)
    if is_on_disk:
        pathlib.Path("/tmp/settings").mkdir(exist_ok=True)
        SETTINGS.symlink_to("/tmp/settings/obd.conf")
    SETTINGS.write_bytes(pathlib.Path("/source/standin/obd.conf").read_bytes())
    LOG.write_bytes(b"")


def measure(subjects, rounds):
    """The costs of each subject by its name, one a round: what disturbs one disturbs the others, too."""
    costs = {name: [] for name in subjects}
    for number in range(rounds + 1):
        for name, (command, environment, cpu) in subjects.items():
            reset(is_on_disk="on disk" in name)
            cost = spawn(command, environment, cpu=cpu)
            if number > 0:  # the first round warms the page cache
                costs[name].append(cost)
    return costs


def median(costs, kind):
    return statistics.median(getattr(cost, kind) for cost in costs)


def ratios(costs, kind, numerator, denominator):
    """Taken round by round."""
    return [getattr(a, kind) / getattr(b, kind) for a, b in zip(costs[numerator], costs[denominator])]


def verdict(value, limit):
    if limit is None:
        return ""
    return f" <= {limit}" if value <= limit else f" ABOVE {limit}"


def spread(values, limit=None):
    """The median with the middle half of the values, and whether it is within the limit."""
    low, middle, high = statistics.quantiles(values, n=4)
    return f"{middle:.2f} [{low:.2f}-{high:.2f}]{verdict(middle, limit)}"
