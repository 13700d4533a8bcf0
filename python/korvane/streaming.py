"""Readings of a hand at a rate, by a thread of their own."""

from __future__ import annotations

import collections
import threading
import time
from typing import Any, Callable, Deque, Dict, Iterator, Mapping, NamedTuple, Optional, Sequence, Tuple

import numpy as np
import numpy.typing as npt

from . import _lifetime
from .errors import BadArgument, KorvaneError, NotSupported
from .hand import Hand

__all__ = ["Sample", "Stream", "VALUES"]

#: What can be read again and again, and which method of a hand reads it.
READERS: Dict[str, Callable[[Hand], Any]] = {
    "positions": Hand.positions,
    "angles": Hand.joint_angles,
    "velocities": Hand.velocities,
    "currents": Hand.currents,
    "temperatures": Hand.temperatures,
    "errors": Hand.errors,
    "control_modes": Hand.control_modes,
    "thresholds": Hand.current_thresholds,
    "touch": Hand.touch,
}
VALUES: Tuple[str, ...] = tuple(READERS)

#: So many failed readings one after the other, and the hand counts as gone.
_FAILED_READINGS = 20


class Sample(NamedTuple):
    """One reading of all values that were asked for."""

    time: float  #: Halfway through the requests [s], since the first one.
    values: Mapping[str, npt.NDArray[Any]]  #: By name, but for touch.
    touch: Mapping[str, npt.NDArray[np.uint8]]  #: By finger, if it was asked for.

    def __getitem__(self, key: Any) -> Any:
        """A value by its name, such as sample["positions"]."""
        return self.values[key] if isinstance(key, str) else tuple.__getitem__(self, key)


class Reader:
    """Reads a hand at a rate, from `start` on. Rate and values are checked before, when it is made."""

    def __init__(self, hand: Hand, rate: float, values: Sequence[str]):
        if not 0.01 <= rate <= 1000:
            raise BadArgument(f"{hand.address}: a rate is 0.01 to 1000 readings a second, and not {rate}")
        values = (values,) if isinstance(values, str) else tuple(values)
        unknown = [value for value in values if value not in READERS]
        if unknown or not values:
            raise BadArgument(
                f"{hand.address}: nothing is called {', '.join(unknown) or 'nothing'}; there are {', '.join(VALUES)}"
            )
        self._hand, self._rate, self._values = hand, rate, values
        self._began: Optional[float] = None
        self._stop = threading.Event()
        self.lost = 0
        self.error: Optional[BaseException] = None
        for value in self._values:  # one that the model doesn't have is told at once
            try:
                READERS[value](hand)
            except NotSupported:
                raise
            except KorvaneError:
                pass

    def start(self, take: Callable[[Sample], None], done: Callable[[], None]) -> None:
        """Hands each sample to `take`, whose exception ends it, and then calls `done`; both on a thread of its own."""
        self._take, self._done = take, done
        self._thread = threading.Thread(target=self._run, name="korvane-reader", daemon=True)
        self._thread.start()
        _lifetime.register_reader(self)

    @property
    def values(self) -> Tuple[str, ...]:
        return self._values

    def close(self) -> None:
        self._stop.set()
        if self._thread is not threading.current_thread():
            self._thread.join()

    def stop_soon(self) -> None:
        self._stop.set()

    def _read(self) -> Sample:
        begin = time.monotonic()
        if self._began is None:
            self._began = begin
        read = {value: READERS[value](self._hand) for value in self._values}
        touch = read.pop("touch", {})
        return Sample((begin + time.monotonic()) / 2 - self._began, read, touch)

    def _run(self) -> None:
        try:
            self._read_at_rate()
        except BaseException as error:  # what take raised, too, is for whoever waits
            self.error = error
        finally:
            self._done()

    def _read_at_rate(self) -> None:
        in_a_row = 0
        due = time.monotonic()
        while not self._stop.is_set():
            try:
                self._take(self._read())
                in_a_row = 0
            except KorvaneError:
                if self._stop.is_set():
                    return
                self.lost += 1
                in_a_row += 1
                if in_a_row == _FAILED_READINGS or self._hand.closed or self._hand.statistics.link_lost:
                    raise
            # By a clock that doesn't drift; a reading that took too long shifts those behind it.
            due = max(due + 1 / self._rate, time.monotonic() - 1 / self._rate)
            self._stop.wait(max(0.0, due - time.monotonic()))


class _Samples:
    """What the reader thread and the stream share: so the thread doesn't keep the stream alive."""

    def __init__(self, most: int):
        self.changed = threading.Condition()
        self.samples: Deque[Sample] = collections.deque(maxlen=most)
        self.dropped = 0
        self.ended = False

    def add(self, sample: Sample) -> None:
        with self.changed:
            self.dropped += len(self.samples) == self.samples.maxlen
            self.samples.append(sample)
            self.changed.notify()

    def end(self) -> None:
        with self.changed:
            self.ended = True
            self.changed.notify_all()


class Stream(Iterator[Sample]):
    """Samples of a hand as they come: an iterator, and a context manager that ends the readings.

    A thread reads the hand at the rate, whatever the program does meanwhile, and keeps the last `buffer`
    samples. Those that nobody fetched in time are `dropped`; readings that failed are `lost`. Where the hand
    fails 20 times in a row, or its link goes, the iterator raises that once the samples before it are fetched.
    The hand can be used as ever meanwhile.
    """

    def __init__(self, hand: Hand, rate: float = 50.0, values: Sequence[str] = ("positions",), buffer: int = 256):
        if buffer < 1:
            raise BadArgument(f"{hand.address}: a buffer holds at least one sample")
        self._shared = _Samples(buffer)
        self._reader = Reader(hand, rate, values)
        self._reader.start(self._shared.add, self._shared.end)

    @property
    def dropped(self) -> int:
        """Samples that weren't fetched before the buffer was full."""
        return self._shared.dropped

    @property
    def lost(self) -> int:
        """Readings that failed."""
        return self._reader.lost

    def __iter__(self) -> "Stream":
        return self

    def __next__(self) -> Sample:
        shared = self._shared
        with shared.changed:
            while not shared.samples:
                if shared.ended:
                    self._raise_error()
                    raise StopIteration
                shared.changed.wait()
            return shared.samples.popleft()

    def _raise_error(self) -> None:
        error, self._reader.error = self._reader.error, None
        if error is not None:
            raise error

    def take(self, seconds: float) -> "list[Sample]":
        """The samples of the next seconds."""
        begin: Optional[float] = None
        taken = []
        for sample in self:
            begin = sample.time if begin is None else begin
            if sample.time - begin >= seconds:
                break
            taken.append(sample)
        return taken

    def close(self) -> None:
        """Ends the readings. Samples that have been read can still be fetched."""
        self._reader.close()

    def __enter__(self) -> "Stream":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        reader = getattr(self, "_reader", None)
        if reader is not None:
            reader.stop_soon()
