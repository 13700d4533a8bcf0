"""The Python package against korvane-sim: five models behind both stand-in adapters, and a Brisa on a serial port.

The package is that of the build folder.
"""

import ctypes
import os
import pathlib
import signal
import subprocess
import sys

import pytest
import simulator
from simulator import BUILD

PROJECT = pathlib.Path(__file__).resolve().parents[2]
#: More than anything takes, and less than a test may.
LIMIT = 120

# What is started in the background of a script ignores Ctrl-C, and so would all that it starts.
signal.signal(signal.SIGINT, signal.default_int_handler)
os.environ["PATH"] = f"{BUILD / 'bin'}:{os.environ['PATH']}"
os.environ["PYTHONPATH"] = str(BUILD / "python")
sys.path.insert(0, str(BUILD / "python"))
# The library takes an adapter's library that the process already has.
for name in ("libusbcanfd.so", "libcanbus.so"):
    ctypes.CDLL(str(BUILD / "standin" / name), mode=os.RTLD_GLOBAL)

import korvane  # noqa: E402


class Simulator(simulator.Simulator):
    """The one that hands are opened on until it stops."""

    def __init__(self, folder, *options):
        super().__init__(folder, *options)
        self.before = os.environ.get("KORVANE_SIM_SOCKET", "")
        os.environ["KORVANE_SIM_SOCKET"] = self.socket

    def stop(self):
        os.environ["KORVANE_SIM_SOCKET"] = self.before
        super().stop()


@pytest.fixture(scope="session")
def sim(tmp_path_factory):
    made = Simulator(tmp_path_factory.mktemp("sim"), *simulator.FIVE)
    yield made
    made.stop()


@pytest.fixture
def brisa():
    """A simulated hand of the test's own."""
    with korvane.simulated() as hand:
        yield hand


@pytest.fixture
def silent():
    """A hand that answers no more once it is open, with the longest time-out that there is."""
    with korvane.simulated() as hand:
        freeze(hand)
        yield hand


def freeze(hand):
    """The simulator stops where it is: the port stays, and nothing answers."""
    process = hand.simulator.process.pid
    os.kill(process, signal.SIGSTOP)
    threads = pathlib.Path(f"/proc/{process}/task")
    while any(stat.read_text().rsplit(")", 1)[1].split()[0] != "T" for stat in threads.glob("*/stat")):
        pass


def run(program, *arguments):
    """A program of its own, in Python."""
    return subprocess.run(
        [sys.executable, "-X", "faulthandler", "-c", program, *map(str, arguments)],
        capture_output=True, text=True, timeout=LIMIT,
    )
