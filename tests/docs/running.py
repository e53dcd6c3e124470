"""A bus, the simulator on it, and programs that are looked at while they run."""

import contextlib
import os
import pty
import select
import signal
import subprocess
import time

GRACE = 10  # seconds for what ends when it is asked to
PATIENCE = 300  # seconds, for emulated machines; only a failing test waits that long


class Failure(Exception):
    """What went wrong, with the output so far."""


def stop(process):
    """Ends a process and whatever it started in its session; a bus then removes its socket."""
    end = time.monotonic() + GRACE
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGTERM)
        while time.monotonic() < end:
            process.poll()
            os.killpg(process.pid, 0)
            time.sleep(0.01)
        os.killpg(process.pid, signal.SIGKILL)
    process.wait()


@contextlib.contextmanager
def background(*command, ready, environment=None):
    """Runs a program until the end of the block, from the time when a line of its begins so."""
    with subprocess.Popen(
        command,
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
        env=environment,
        encoding="utf-8",
        start_new_session=True,
    ) as process:
        try:
            line = next((line for line in process.stdout if line.startswith(ready)), None)
            if line is None:
                raise Failure(f"{command[0]} ended too early")
            yield line.strip()
        finally:
            stop(process)


@contextlib.contextmanager
def machine(simulator):
    """A bus with the simulator on it; gives the environment of its clients."""
    with background(
        "dbus-daemon", "--session", "--nofork", "--print-address=1", ready="unix:"
    ) as address:
        environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": address}
        with background(
            simulator, "--period", "100", ready="bmcbus-simulator: ready", environment=environment
        ):
            yield environment


def run(command, environment, folder, shows=None):
    """Runs a command as on a terminal, to its end or until a line begins with what it shows.

    Gives what it printed. Fails when it ends with another status than 0, or takes too long.
    """
    terminal, slave = pty.openpty()
    with subprocess.Popen(
        command,
        stdin=subprocess.DEVNULL,
        stdout=slave,
        stderr=slave,
        env=environment,
        cwd=folder,
        start_new_session=True,
    ) as process:
        os.close(slave)
        try:
            return watch(process, terminal, shows)
        finally:
            stop(process)
            os.close(terminal)


def watch(process, terminal, shows):
    output, end = "", time.monotonic() + PATIENCE
    while shows is None or not any(line.startswith(shows) for line in output.splitlines()):
        if time.monotonic() > end:
            raise Failure(f"did not end within {PATIENCE} s: {output}")
        if select.select([terminal], [], [], 0.1)[0]:
            try:
                output += os.read(terminal, 65536).decode("utf-8", "replace").replace("\r\n", "\n")
                continue
            except OSError:  # the other end is closed
                status = process.wait(PATIENCE)
        elif process.poll() is not None:
            status = process.returncode
        else:
            continue
        if shows is not None:
            raise Failure(f"ended with {status}, no line began with {shows!r}: {output}")
        if status != 0:
            raise Failure(f"ended with {status}: {output}")
        return output
    return output
