"""Simulated hands for the tests in Python: on a USB adapter, ZLG and HCAN alike, and on a serial port.

KORVANE_BUILD is the build folder.
"""

import os
import pathlib
import subprocess

BUILD = pathlib.Path(os.environ.get("KORVANE_BUILD", "build/test")).resolve()
#: The id of one hand of each model on one bus, and how many motors or joints it has.
MODELS = {"brisa": (1, 10), "tessel": (2, 12), "quill": (3, 10), "lumen": (4, 4), "vanta": (5, 20)}
FIVE = [f"--hand={model}:{hand_id}" for model, (hand_id, _) in MODELS.items()]
#: A serial port has a Brisa.
HANDS = [("serial", "brisa")] + [(link, model) for link in ("zlg", "hcan") for model in MODELS]


class Simulator:
    def __init__(self, folder, *options, program=(BUILD / "bin/korvane-sim",), serial=True):
        self.socket = f"{folder}/sim.sock"
        self.port = f"{folder}/hand"
        self.command = [*program, "--adapters", "--socket", self.socket]
        if serial:
            self.command += ["--serial", f"brisa@{self.port}"]
        self.begin(*options)

    def begin(self, *options):
        self.process = subprocess.Popen([*self.command, *options], stdout=subprocess.PIPE, text=True)
        for line in self.process.stdout:
            if line.startswith("korvane-sim: ready at"):
                break

    def stop(self):
        self.process.terminate()
        self.process.wait(60)
        self.process.stdout.close()

    def restart(self, *options):
        """Other hands in the place of these."""
        self.stop()
        self.begin(*options)

    def address(self, link, model="brisa", hand_id=None):
        place = f"serial:{self.port}" if link == "serial" else f"{link}:0.0"
        return f"{place}:{model}:{hand_id or MODELS[model][0]}"
