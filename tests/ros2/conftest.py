"""korvane-ros2 against korvane-sim on one side and another process of DDS on the other.

Only in a network namespace that has nothing but a loopback interface, so that nothing gets out:
    unshare -rn sh -c 'ip link set lo up; python3 -m pytest tests/ros2'
"""

import json
import os
import pathlib
import signal
import subprocess
import threading
import time

import pytest
from simulator import BUILD

#: More than anything takes on a busy machine, discovery included.
LIMIT = 60
#: A domain for each process that runs tests beside others.
DOMAIN = os.environ.get("PYTEST_XDIST_WORKER", "gw0")[2:]
#: The tests of another DDS than Cyclone have a peer of their own; scripts/test-ros2-fastdds builds it.
PEER = os.environ.get("KORVANE_ROS2_PEER")
collect_ignore = [] if PEER else ["fastdds"]


def pytest_configure(config):
    with open("/proc/net/dev") as devices:
        interfaces = [line.split(":")[0].strip() for line in devices.readlines()[2:]]
    if interfaces != ["lo"]:
        pytest.exit(f"not in a network namespace of its own: {interfaces}", 4)


class Process:
    """A program whose output lines are kept as they come."""

    def __init__(self, arguments, env=None, stdin=None):
        self.process = subprocess.Popen(
            [str(argument) for argument in arguments], env=env, stdin=stdin, text=True, bufsize=1,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.lines = []
        self.errors = ""
        self.changed = threading.Condition()
        self.readers = [threading.Thread(target=self.read), threading.Thread(target=self.read_errors)]
        for reader in self.readers:
            reader.start()

    def read(self):
        for line in self.process.stdout:
            with self.changed:
                self.lines.append(line)
                self.changed.notify_all()

    def read_errors(self):
        self.errors = self.process.stderr.read()

    def wait(self, accepts, since=0):
        """The first line after `since` of which `accepts` is true, or the end of the test."""
        seen = since
        end = time.monotonic() + LIMIT
        with self.changed:
            while True:
                for line in self.lines[seen:]:
                    if accepts(line):
                        return line
                seen = max(seen, len(self.lines))
                self.changed.wait(max(0, end - time.monotonic()))
                assert time.monotonic() < end, f"it didn't come; last: {''.join(self.lines[-60:])} {self.errors}"

    def send(self, number):
        self.process.send_signal(number)

    def end(self, number=signal.SIGTERM):
        """Its status and what it wrote to the standard error stream."""
        if self.process.poll() is None:
            self.process.send_signal(number)
        status = self.process.wait(LIMIT)
        for reader in self.readers:
            reader.join(LIMIT)
        return status, self.errors


class Peer(Process):
    """Another process of DDS."""

    def __init__(self, *topics, env=None):
        super().__init__([PEER or BUILD / "tests/bin/ros2_peer", DOMAIN, *topics], env, stdin=subprocess.PIPE)

    def order(self, *words):
        self.process.stdin.write(" ".join(str(word) for word in words) + "\n")
        self.process.stdin.flush()

    def writer(self, topic, kind="joints", reliability="reliable", name="w"):
        self.order("writer", name, topic, kind, reliability)

    def matched(self, topic):
        self.wait(lambda line: '"matched"' in line and f'"{topic}"' in line)

    def message(self, topic, accepts=lambda message: True, fresh=True):
        """The first message on the topic that fits; with `fresh` of those that come from now on."""
        def fits(line):
            document = json.loads(line)
            return document.get("topic") == topic and accepts(document)
        return json.loads(self.wait(fits, len(self.lines) if fresh else 0))

    def status(self, accepts=lambda status: True, name=""):
        """The first status of a hand in /diagnostics from now on that fits."""
        found = []

        def fits(message):
            found[:] = [s for s in message["status"] if name in s["name"] and accepts(s)]
            return bool(found)
        self.message("/diagnostics", fits)
        return found[0]

    def count(self, topic):
        return sum(1 for line in list(self.lines) if json.loads(line).get("topic") == topic)


class Setup:
    """Makes programs that end with the test."""

    def __init__(self, folder):
        self.folder = folder
        self.port = f"{folder}/hand"
        self.env = {**os.environ, "KORVANE_SIM_SOCKET": f"{folder}/sim.sock",
                    "LD_LIBRARY_PATH": str(BUILD / "standin")}
        for name in ("KORVANE_HAND", "ROS_DISTRO", "ROS_DOMAIN_ID", "CYCLONEDDS_URI"):
            self.env.pop(name, None)
        self.made = []

    def keep(self, process):
        self.made.append(process)
        return process

    def sim(self, *options, ready="ready"):
        sim = self.keep(Process([BUILD / "bin/korvane-sim", *options], self.env))
        sim.wait(lambda line: ready in line)
        return sim

    def kill(self, sim):
        """The name of its port goes first: its terminal may be that of another simulator a moment later."""
        pathlib.Path(self.port).unlink()
        sim.end(signal.SIGKILL)

    def serial_sim(self, *options):
        return self.sim("--serial", f"brisa@{self.port}", *options)

    def adapters(self, *options):
        return self.sim("--adapters", "--socket", self.env["KORVANE_SIM_SOCKET"], *options, ready="ready at")

    @staticmethod
    def command(*options):
        return [BUILD / "bin/korvane-ros2", "--local", "--domain", DOMAIN, "--timeout", "1000", *options]

    def bridge(self, *options, waits=True):
        bridge = self.keep(Process(self.command(*options), self.env))
        if waits:
            bridge.wait(lambda line: " is " in line)
        return bridge

    def peer(self, *topics):
        return self.keep(Peer(*topics, env=self.env))

    def end(self):
        for process in reversed(self.made):
            if process.process.stdin:
                process.process.stdin.close()
            process.send(signal.SIGCONT)
            process.end()


@pytest.fixture
def setup(tmp_path):
    made = Setup(tmp_path)
    yield made
    made.end()
