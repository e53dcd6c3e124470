"""Threads and loops: what a send, a post or a task costs."""

from .measure import median, ratio

LOOPS = ("sd-event", "zloop", "asio", "poll")


def measured(times, report, name, program, contenders, *arguments):
    """The rounds' figures by contender, or None where one failed."""
    try:
        return times.rounds(program, contenders, *arguments)
    except RuntimeError as error:
        report.failed(name, error)
        return None


def compare(times, report, name, bound, floor, program, *arguments, peers=(), ours="library"):
    results = measured(times, report, name, program, (floor, ours, *peers), *arguments)
    if results is None:
        return
    by_hand, library = results[floor], results[ours]
    if by_hand is None:
        report.plain(f"{name:44} not measured, {floor} is not built in")
        return
    others = [(who, results[who] and ratio(results[who], by_hand)) for who in peers]
    report.row(name, median(by_hand), median(library), bound, ratio(library, by_hand),
               [("wall", ratio(library, by_hand, 1)), *others])


def sends(times, report):
    for senders in (1, 4):
        compare(times, report, f"funnel send, senders: {senders}", 1.1, "plain",
                "threads/bench-sends", "funnel", senders, 20000)
    for loop in LOOPS[:3]:
        compare(times, report, f"send over the channel, {loop}", 1.1, "plain",
                "threads/bench-sends", loop, 1, 20000)


def posts(times, report):
    for loop in LOOPS:
        for producers in (1, 4):
            compare(times, report, f"post, {loop}, producers: {producers}", 1.1, "plain",
                    "threads/bench-posts", loop, producers, 20,
                    peers=["asio"] if loop == "asio" else [])
        compare(times, report, f"post, {loop}, woken once for a burst", 0.15, "plain",
                "threads/bench-posts", loop, 1, 20, ours="once")


def latency(times, report):
    for loop in LOOPS:
        name = f"post to an idle loop, {loop}"
        peers = ["asio"] if loop == "asio" else []
        results = measured(times, report, name, "threads/bench-latency",
                           ("plain", "library", *peers), loop, 20000)
        if results is None:
            continue
        floor, library = results["plain"], results["library"]
        for which, what in enumerate(("median", "99th percentile")):
            report.row(f"{name}, {what}", median(floor, which), median(library, which), None,
                       ratio(library, floor, which),
                       [(who, ratio(results[who], floor, which)) for who in peers])


def pool(times, report):
    for workers in (1, 2, 4):
        name = f"task, workers: {workers}"
        compare(times, report, name, 1.25, "plain", "threads/bench-pool", workers, 300000)
        for who in ("asio", "tbb"):
            compare(times, report, f"{name}, against {who}", 1, who, "threads/bench-pool", workers,
                    300000)


def endless(times, report):
    """Producers that know no measure: to the end, in order, and without growth."""
    # 256 bytes for each of the triggers that a pipe holds.
    for loop in LOOPS:
        for name, what, count, bound in ((f"2,000,000 posts of 4 producers, {loop}", "producers", 2000000, 8192),
                                         (f"1,000,000 times itself, {loop}", "self", 1000000, 1024)):
            try:
                seconds, growth = times.pinned("threads/bench-unbounded", what, loop, count)
            except RuntimeError as error:
                report.failed(name, error)
                continue
            report.limit(f"{name} ({seconds:.2f} s)", growth, "KiB more", bound)


def instructions(count, report):
    """In user space alone: the bounds are for processor time, most of which the kernel takes. Posts
    and their functions are on one thread, so that no two runs differ; the others' threads meet by
    chance."""
    report.heading("instructions per operation")

    def row(name, program, *arguments, operations=1, short=1000, long=3000, peers=()):
        floor, library, *others = (
            count.each(program, [who, *arguments], short, long, operations)
            for who in ("plain", "library", *peers))
        report.row(name, floor, library,
                   others=[(who, other / floor) for who, other in zip(peers, others)])

    row("funnel send, senders: 1", "threads/bench-sends", "funnel", 1)
    for loop in LOOPS[:3]:
        row(f"send over the channel, {loop}", "threads/bench-sends", loop, 1)
    for loop in LOOPS:
        row(f"post, {loop}, on one thread", "threads/bench-posts", loop, 0, operations=16000,
            short=1, long=2, peers=["asio"] if loop == "asio" else [])
    row("task, workers: 1", "threads/bench-pool", 1, short=10000, long=30000, peers=["asio"])
    report.plain("")


def time(times, report):
    report.heading("processor time, ns")
    sends(times, report)
    posts(times, report)
    pool(times, report)
    report.plain("")
    report.heading("wall time from post to handler, ns")
    latency(times, report)
    report.plain("")
    endless(times, report)
    report.plain("")
