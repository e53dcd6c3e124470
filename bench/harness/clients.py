"""Clients of services: what a process does for one read, call or signal."""

import re
import statistics

from .measure import median, ratio, run

PEERS = {"sdbus-c++": "sdbus-c++", "gdbus": "GDBus"}


# name, what bench-calls calls it
CONNECTIONS = (
    ("cached object", "create"),
    ("first cached object, with its connection", "first"),
    ("Get of one byte, connection held", "get"),
    ("Get of one byte, connection of its own", "get-taken"),
)


def counted(count, report):
    def row(name, bound, program, what, short, long):
        floor, library, *peers = (count.each_or_none(program, [who, what], short, long)
                                  for who in ("floor", "library", *PEERS))
        others = [(name, peer and peer / floor) for name, peer in zip(PEERS.values(), peers)]
        report.row(name, floor, library, bound, others=others)

    row("Get of one byte", 1.3, "client/bench-calls", "get", 200, 600)
    row("method call", 1.15, "client/bench-calls", "call", 200, 600)
    # In the order of their names, which peers measure, too; services send them in any.
    for order in ("", "-declared", "-shuffled"):
        said = order.replace("-", ", ")
        row(f"GetAll of 55 properties{said}", 1.3, "client/bench-decode", "all" + order, 100, 300)
        row(f"PropertiesChanged of 55{said}", 1.25, "client/bench-decode", "changed" + order, 100, 300)
    row("signal of 70 arguments", 1.1, "client/bench-decode", "notify", 100, 300)
    row("call with a result, 20 in flight", 1.1, "client/bench-results", "async", 200, 1000)
    row("a coroutine for each, to a completion", 1.05, "client/bench-results", "frames", 200, 1000)
    row("a coroutine for all, to a completion", 1.0, "client/bench-results", "frame", 200, 1000)
    row("blocking call with a result", 1.05, "client/bench-results", "try", 200, 1000)
    for name, what in CONNECTIONS:
        if what != "get":  # counted above
            row(name, None, "client/bench-calls", what, 50, 150)


def dispatch(count, report):
    figures = []
    for objects in (1, 10, 100, 500):
        # The heap that many objects leave differs from run to run: malloc looks for room longer.
        floor, library = (
            statistics.median(count.each("client/bench-objects", [who, objects], 500, 4500)
                              for _ in range(3))
            for who in ("floor", "library"))
        report.row(f"PropertiesChanged in turn to {objects}", floor, library, 1.3)
        figures.append(library)
    report.limit("spread of the four", 100 * (max(figures) / min(figures) - 1), "%", 5)


def heap(folder, environment, report):
    # The allocator's cache of freed pieces would count as used.
    environment = {**environment, "GLIBC_TUNABLES": "glibc.malloc.tcache_count=0"}
    for objects in (100, 500):
        floor, library = (
            int(re.search(r"(\d+) bytes of heap each",
                          run([folder / "client/bench-objects", who, objects, 1], environment)[0])[1])
            for who in ("floor", "library"))
        report.limit(f"heap for each of {objects} objects (by hand: {floor})", library, "bytes", 2000)


def allocations(folder, environment, report):
    """By operator new, beside the message; of a running coroutine the frame remains, shared by all calls."""
    for what, most, size in (("completion", 1, 96), ("coroutine", 0.01, 5)):
        said, _ = run([folder / "client/bench-allocations", what, 1000], environment)
        number, beside = (float(word) for word in said.split())
        report.limit(f"allocations of a call with a {what}", number, "", most)
        report.limit(f"bytes of a call with a {what}", beside, "bytes", size)


def instructions(count, report):
    report.heading("instructions per operation")
    counted(count, report)
    dispatch(count, report)
    report.plain("")
    allocations(count.folder, count.environment, report)
    report.plain("")


def waiting(times, report):
    """What a caller waits for: the bus daemon's and the service's work is in it."""
    report.heading("wall time, ns")
    for name, what in CONNECTIONS:
        results = times.rounds("client/bench-calls", ("floor", "library", *PEERS), what, 500)
        floor, library = results["floor"], results["library"]
        others = [(PEERS[who], results[who] and ratio(results[who], floor, 1)) for who in PEERS]
        report.row(name, median(floor, 1), median(library, 1), None, ratio(library, floor, 1), others)
    report.plain("")


def waits(times, report):
    def milliseconds(what, count):
        return median(times.rounds("client/bench-waits", ["library"], what, count)["library"], 1) / 1e6

    report.limit("100 calls at once that take 10 ms each", milliseconds("parallel", 10), "ms", 15)
    for loop in ("sd-event", "poll", "process"):
        report.limit(f"a timeout of 10 ms, {loop}", milliseconds("late-" + loop, 20), "ms", 15)
    report.plain("")


def uncounted(times, report):
    heap(times.folder, times.environment, report)
    report.plain("")
    waits(times, report)
    waiting(times, report)
