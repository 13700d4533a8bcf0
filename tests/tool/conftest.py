"""The tool as a user runs it, against korvane-sim: five models on one bus, and a Brisa on a serial port."""

import json
import os
import pathlib
import signal
import subprocess
from dataclasses import dataclass

import pytest
import simulator
from simulator import BUILD, FIVE

TOOL = BUILD / "bin" / "korvane"
#: More than any request takes, and less than a test may.
LIMIT = 60
#: A busy machine keeps a reply for longer than most commands wait.
PATIENCE = ("--timeout", 1000)
PATIENT = {"bench", "doctor", "find", "info", "move", "record", "replay", "serve", "service", "update", "watch"}


@dataclass
class Result:
    status: int
    out: str
    err: str

    @property
    def json(self):
        return json.loads(self.out)


def command_line(arguments):
    arguments = [str(argument) for argument in arguments]
    is_patient = arguments and arguments[0] in PATIENT and "--timeout" not in arguments
    return [TOOL, *arguments, *(map(str, PATIENCE) if is_patient else ())]


def hear_ctrl_c():
    """What is started in the background of a script would ignore it."""
    signal.signal(signal.SIGINT, signal.SIG_DFL)


class Simulator(simulator.Simulator):
    """What runs the tool against them."""

    def __init__(self, folder, *options, **more):
        super().__init__(folder, *options, program=(TOOL, "sim"), **more)
        self.env = {
            **os.environ,
            "KORVANE_SIM_SOCKET": self.socket,
            "LD_LIBRARY_PATH": str(BUILD / "standin"),
            "TERM": "dumb",
        }
        self.env.pop("KORVANE_HAND", None)

    def start(self, *arguments, **options):
        pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
        return subprocess.Popen(command_line(arguments), text=True, env=self.env, preexec_fn=hear_ctrl_c, **pipes)

    def korvane(self, *arguments, **environment):
        done = subprocess.run(
            command_line(arguments), capture_output=True, text=True, timeout=LIMIT,
            env={**self.env, **environment}, stdin=subprocess.DEVNULL,
        )
        return Result(done.returncode, done.stdout, done.stderr)

    def is_open_in(self, process):
        files = pathlib.Path(f"/proc/{process.pid}/fd")
        try:
            return os.path.realpath(self.port) in [os.path.realpath(file) for file in files.iterdir()]
        except OSError:
            return False

    def interrupt(self, *arguments, after, size=1):
        """Runs a command, and sends it Ctrl-C once `after` stands in its output, is a file of that size, or is a port
        that is open."""
        process = self.start(*arguments)
        if after == self.port:
            while process.poll() is None and not self.is_open_in(process):
                pass
        elif isinstance(after, pathlib.Path):
            while not (after.exists() and after.stat().st_size >= size) and process.poll() is None:
                pass
        else:
            for line in process.stdout:
                if after in line:
                    break
        process.send_signal(signal.SIGINT)
        out, err = process.communicate(timeout=LIMIT)
        return Result(process.returncode, out, err)


@pytest.fixture(scope="session")
def sim(tmp_path_factory):
    made = Simulator(tmp_path_factory.mktemp("sim"), *FIVE)
    yield made
    made.stop()


@pytest.fixture
def make_sim(tmp_path):
    """For simulators with faults; each test has its own."""
    made = []

    def make(*options, **more):
        made.append(Simulator(tmp_path, *options, **more))
        return made[-1]

    yield make
    for sim in made:
        sim.stop()
