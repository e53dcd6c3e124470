"""Runs contenders, each in a process of its own."""

import os
import re
import statistics
import subprocess

NOT_BUILT_IN = 77
ROUNDS = 11


class NotBuiltIn(Exception):
    """The program has no such contender."""


def run(command, environment):
    """Gives what it printed, on both channels."""
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, env=environment, timeout=300, check=False)
    if done.returncode == NOT_BUILT_IN:
        raise NotBuiltIn(command[-3])
    if done.returncode:
        raise RuntimeError(f"{' '.join(map(str, command))}: {done.returncode}: {done.stderr.strip()}")
    return done.stdout, done.stderr


class Instructions:
    """In user space, of all threads of the process, for one operation: the difference of two runs,
    so that start and end drop out."""

    def __init__(self, folder, environment):
        self.folder = folder
        self.environment = environment

    def _of_run(self, program, arguments):
        _, said = run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null",
                       self.folder / program, *arguments], self.environment)
        return int(re.findall(r"Collected : (\d+)", said)[-1])

    def each(self, program, arguments, short, long, operations=1):
        """The last argument is the number of rounds; each has that many operations."""
        more = self._of_run(program, [*arguments, long]) - self._of_run(program, [*arguments, short])
        return more / (long - short) / operations

    def each_or_none(self, *what, **how):
        try:
            return self.each(*what, **how)
        except NotBuiltIn:
            return None


class Times:
    """Nanoseconds of processor time, that of the kernel included, and of wall time, for one
    operation. All contenders take turns on one core; the figures are medians of the rounds, and a
    ratio is the median of that of two runs in one round, which other programs disturb alike."""

    def __init__(self, folder, environment):
        self.folder = folder
        self.environment = environment
        self.core = max(os.sched_getaffinity(0))

    def pinned(self, program, *arguments):
        said, _ = run(["taskset", "-c", self.core, self.folder / program, *arguments],
                      self.environment)
        return [float(word) for word in said.split()]

    def rounds(self, program, contenders, *arguments):
        """Gives, by contender, the figures that each of its runs printed; None if not built in."""
        results = {who: [] for who in contenders}
        for _ in range(ROUNDS):
            for who in contenders:
                if results[who] is not None:
                    try:
                        results[who].append(self.pinned(program, who, *arguments))
                    except NotBuiltIn:
                        results[who] = None
        return results


def median(results, which=0):
    return statistics.median(result[which] for result in results)


def ratio(results, floor, which=0):
    return statistics.median(one[which] / other[which] for one, other in zip(results, floor))
