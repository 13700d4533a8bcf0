"""The Python package against korvane-sim: five models behind both stand-in adapters, and a Brisa on a serial port.

KORVANE_BUILD is the build folder, whose package is imported.
"""

import ctypes
import os
import pathlib
import signal
import subprocess
import sys

import pytest

BUILD = pathlib.Path(os.environ.get("KORVANE_BUILD", "build/test")).resolve()
PROJECT = pathlib.Path(__file__).resolve().parents[2]
FIVE = {"brisa": 1, "tessel": 2, "quill": 3, "lumen": 4, "vanta": 5}
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


class Simulator:
    def __init__(self, folder, *options):
        self.socket = f"{folder}/sim.sock"
        self.port = f"{folder}/hand"
        self.process = subprocess.Popen(
            ["korvane-sim", "--adapters", "--socket", self.socket, "--serial", f"brisa@{self.port}", *options],
            stdout=subprocess.PIPE, text=True,
        )
        self.before = os.environ.get("KORVANE_SIM_SOCKET", "")
        os.environ["KORVANE_SIM_SOCKET"] = self.socket
        for line in self.process.stdout:
            if line.startswith("korvane-sim: ready at"):
                break

    def address(self, link, model="brisa"):
        if link == "serial":
            return f"serial:{self.port}:brisa:1"
        return f"{link}:0.0:{model}:{FIVE[model]}"

    def stop(self):
        os.environ["KORVANE_SIM_SOCKET"] = self.before
        self.process.terminate()
        self.process.wait(LIMIT)
        self.process.stdout.close()


@pytest.fixture(scope="session")
def sim(tmp_path_factory):
    hands = (f"--hand={model}:{hand_id}" for model, hand_id in FIVE.items())
    simulator = Simulator(tmp_path_factory.mktemp("sim"), *hands)
    yield simulator
    simulator.stop()


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
