"""A private message bus without the limits that a benchmark meets."""

import contextlib
import os
import subprocess
import tempfile
from pathlib import Path

CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
 <listen>unix:path={}/bus</listen>
 <policy context="default">
  <allow user="*"/><allow own="*"/><allow send_destination="*"/><allow receive_sender="*"/>
 </policy>
 <limit name="max_match_rules_per_connection">50000</limit>
 <limit name="max_replies_per_connection">50000</limit>
</busconfig>
"""


class Daemon:
    def __init__(self, process):
        self._process = process

    def end(self):
        """Gives what the tool that it ran under wrote."""
        self._process.terminate()
        return self._process.communicate()[1]

    def processor_time(self):
        """Nanoseconds, those of the kernel included."""
        return int(Path(f"/proc/{self._process.pid}/schedstat").read_text(encoding="ascii").split()[0])


@contextlib.contextmanager
def private_bus():
    """Gives the environment of programs that use it and keep their log to themselves."""
    with configured_bus() as (environment, _):
        yield environment


@contextlib.contextmanager
def configured_bus(under=(), report_end=False):
    """The same, with a daemon that runs under a tool; also gives the daemon."""
    with tempfile.TemporaryDirectory() as folder:
        config = Path(folder, "bus.conf")
        config.write_text(CONFIGURATION.format(folder), encoding="utf-8")
        daemon = subprocess.Popen(
            [*under, "dbus-daemon", f"--config-file={config}", "--nofork", "--print-address"],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE if report_end else subprocess.DEVNULL,
            text=True,
        )
        try:
            yield {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": daemon.stdout.readline().strip(),
                   "DLOG_LEVEL": "0"}, Daemon(daemon)
        finally:
            if daemon.returncode is None:
                daemon.kill()
                daemon.wait()
                daemon.stdout.close()
