"""Simulated hands, for trying and for tests."""

from __future__ import annotations

import os
import shutil
import subprocess
import tempfile
import weakref
from typing import List, Optional, Sequence

from .errors import KorvaneError, NoReply, NotSupported
from .hand import Brisa
from .models import MODELS
from .opening import open

__all__ = ["SimulatedBrisa", "Simulator", "simulated"]

_READY = "korvane-sim: ready"
#: A busy machine keeps the reply of another process for longer than a real hand does.
_REPLY_MS = 1000
_TRIES = 3


def _command() -> List[str]:
    """$KORVANE_SIM, or korvane-sim in PATH."""
    named = os.environ.get("KORVANE_SIM")
    if named:
        return [named]
    program = shutil.which("korvane-sim")
    if program:
        return [program]
    raise KorvaneError(
        "there is no korvane-sim", operation="simulated",
        advice="Install korvane-tools, put the folder of korvane-sim into PATH, or name it in KORVANE_SIM.",
    )


class Simulator:
    """korvane-sim with one hand on a pseudo-terminal. A context manager; ends with the last reference, too.

    `korvane.open(simulator.address)` opens the hand. `options` are more options of korvane-sim.
    """

    def __init__(self, model: str = "brisa", options: Sequence[str] = ()) -> None:
        if model not in MODELS or not MODELS[model].has_serial:
            raise NotSupported(
                f"a {model} isn't to be had on a serial link, and so not on a pseudo-terminal",
                operation="simulated", advice="Serve it with korvane-sim on a CAN bus.",
            )
        self._folder = tempfile.TemporaryDirectory(prefix="korvane-")
        port = os.path.join(self._folder.name, "hand")
        self.address = f"serial:{port}:{model}"
        # Ctrl-C is for the program, and not for the hand.
        self.process = subprocess.Popen(
            [*_command(), "--serial", f"{model}@{port}", *options],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, start_new_session=True,
        )
        self._finalizer = weakref.finalize(self, _end, self.process, self._folder)
        self._await_ready()

    def close(self) -> None:
        """Ends the simulator; the hand is gone."""
        self._finalizer()

    def __enter__(self) -> "Simulator":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def _await_ready(self) -> None:
        assert self.process.stdout is not None and self.process.stderr is not None
        for line in self.process.stdout:
            if line.startswith(_READY):
                return
        said = self.process.stderr.read().strip()
        self.close()
        raise KorvaneError(f"korvane-sim ended at once: {said}", operation="simulated")


def _end(process: "subprocess.Popen[str]", folder: "tempfile.TemporaryDirectory[str]") -> None:
    process.kill()  # it has nothing to lose
    process.wait()
    for pipe in (process.stdout, process.stderr):
        if pipe is not None:
            pipe.close()
    folder.cleanup()


class SimulatedBrisa(Brisa):
    """A hand that takes its simulator along when it is closed."""

    _simulator: Optional[Simulator] = None

    @property
    def simulator(self) -> Simulator:
        """What simulates it."""
        assert self._simulator is not None
        return self._simulator

    def close(self) -> None:
        super().close()
        if self._simulator is not None:
            self._simulator.close()


def _open_patiently(address: str) -> Brisa:
    for _ in range(_TRIES - 1):
        try:
            return open(address, Brisa)
        except NoReply:
            pass
    return open(address, Brisa)


def simulated(model: str = "brisa", *, side: str = "right", options: Sequence[str] = ()) -> SimulatedBrisa:
    """A simulated hand on a pseudo-terminal, connected. It goes when it is closed, or nothing refers to it.

    Of a model that is to be had on a serial link: a Brisa. `options` are more options of korvane-sim, such as
    "--loss=0.1". Replies are waited for up to 1 s, as a machine may be busy. Serve the other models by
    korvane-sim on a CAN bus; see the page of the simulator.
    """
    simulator = Simulator(model, options)
    hand = _open_patiently(f"{simulator.address}?side={side}")
    made = SimulatedBrisa(hand._handle, hand.address)
    made._simulator = simulator
    made.reply_timeout_ms = _REPLY_MS
    return made
