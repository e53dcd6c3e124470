"""Live objects: client and daemon for each signal, set-up and heap for each object."""

import re
import statistics

from .bus import configured_bus
from .measure import run

PROGRAM = "live/bench-live"


def client(count, report):
    floor = count.each(PROGRAM, ["floor", "signals", 1], 500, 2500)
    figures = []
    for objects in (1, 16, 100, 500, 2000):
        live = statistics.median(count.each(PROGRAM, ["live", "signals", objects], 500, 4500)
                                 for _ in range(3))
        report.row(f"signal to one of {objects} live objects", floor, live, 1.1)
        figures.append(live)
    report.limit("spread of these", 100 * (max(figures) / min(figures) - 1), "%", 3)


def daemon(folder, report):
    """What the bus daemon does for a signal: its instructions in user space, and its processor time,
    the kernel's included, whose bound is the one that counts for users."""
    def instructions(who, objects):
        def total(count):
            with configured_bus(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"],
                                report_end=True) as (environment, bus):
                run([folder / PROGRAM, who, "signals", objects, count], environment)
                return int(re.findall(r"Collected : (\d+)", bus.end())[-1])
        return (total(3000) - total(1000)) / 2000

    first = instructions("live", 1)
    for objects in (16, 100, 500):
        report.row(f"daemon: signal to one of {objects} live objects", first,
                   instructions("live", objects))
    report.row("daemon: signal to one of 500 cached proxies", first, instructions("cached", 500))


def daemon_time(folder, report):
    def each(objects):
        def total(count):
            with configured_bus() as (environment, bus):
                run([folder / PROGRAM, "live", "signals", objects, count], environment)
                return bus.processor_time()
        return (total(30000) - total(5000)) / 25000

    # In turns, so that other programs disturb all alike.
    rounds = [[each(objects) for objects in (1, 16, 100, 500)] for _ in range(5)]
    for place, objects in enumerate((16, 100, 500), 1):
        report.row(f"daemon's time, one of {objects} live objects, ns",
                   statistics.median(one[0] for one in rounds),
                   statistics.median(one[place] for one in rounds), 1.15,
                   statistics.median(one[place] / one[0] for one in rounds))


def set_up(times, report):
    for name, what, objects, of, bound in (
            ("a service with a manager", "setup", 500, 500, 1 / 12),
            ("a service without one", "unmanaged", 500, 500, 1 / 8),
            ("a quarter of a service's", "setup", 500, 2000, 1 / 5)):
        results = {who: [times.pinned(PROGRAM, who, what, objects, of) for _ in range(5)]
                   for who in ("cached", "live")}
        cached, live = (statistics.median(one[0] for one in results[who])
                        for who in ("cached", "live"))
        report.row(f"500 objects of {name}, us", cached * 1000, live * 1000, round(bound, 3))
        if what == "setup":
            report.limit("  its messages, one guess among them", results["live"][0][1], "", 18)
    heap(times, report)


def heap(times, report):
    # The allocator's cache of freed pieces would count as used.
    environment = {**times.environment, "GLIBC_TUNABLES": "glibc.malloc.tcache_count=0"}
    said, _ = run([times.folder / PROGRAM, "live", "setup", 500, 500], environment)
    # Its values: a map, a byte and two flags.
    report.limit("heap for each of 500 live objects, beside its values",
                 int(said.split()[2]) - 51, "bytes", 650)
