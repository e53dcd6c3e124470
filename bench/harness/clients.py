"""Clients of services: what a process does for one read, call or signal."""

import re

from .measure import run

PEERS = {"sdbus-c++": "sdbus-c++", "gdbus": "GDBus"}


def exchanges(count, report):
    def row(name, bound, program, what, short, long):
        floor, library, *peers = (count.each_or_none(program, [who, what], short, long)
                                  for who in ("floor", "library", *PEERS))
        others = [(name, peer and peer / floor) for name, peer in zip(PEERS.values(), peers)]
        report.row(name, floor, library, bound, others=others)

    row("Get of one byte", 1.3, "client/bench-calls", "get", 200, 600)
    row("method call", 1.15, "client/bench-calls", "call", 200, 600)
    row("GetAll of 55 properties", 1.5, "client/bench-decode", "all", 100, 300)
    row("PropertiesChanged of 55", 1.5, "client/bench-decode", "changed", 100, 300)
    row("signal of 70 arguments", 1.1, "client/bench-decode", "notify", 100, 300)


def dispatch(count, report):
    figures = []
    for objects in (1, 10, 100, 500):
        floor, library = (count.each("client/bench-objects", [who, objects], 500, 1500)
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


def instructions(count, report):
    report.heading("instructions per operation")
    exchanges(count, report)
    dispatch(count, report)
    report.plain("")


def memory(count, report):
    heap(count.folder, count.environment, report)
    report.plain("")
