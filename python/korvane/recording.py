"""Recordings: the tool's CSV, written and read. `korvane replay` plays them."""

from __future__ import annotations

import json
import math
import os
import time
from typing import IO, Any, Dict, List, Mapping, Optional, Sequence, Tuple, Union

import numpy as np
import numpy.typing as npt

from .errors import BadArgument
from .hand import Floats, Hand
from .models import MODELS, Joint
from .streaming import Reader, Sample

__all__ = ["Recorder", "Recording", "load", "record"]

_HEAD = "korvane_recording"
_VERSION = 1

Array = npt.NDArray[Any]
Path = Union[str, "os.PathLike[str]"]


def _number(value: float) -> str:
    """As the tool writes it: whole numbers without a point."""
    return str(int(value)) if value == int(value) and abs(value) < 1e15 else repr(value)


def _columns(values: Mapping[str, Array], touch: Mapping[str, Array], joints: Sequence[Joint]) -> List[str]:
    """ "positions_3", "angles_index_flexion", "touch_thumb_7": the last axis of each array is what is named."""
    names = ["time_s"]
    for key, array in values.items():
        count = array.shape[-1]
        is_joint = key == "angles" and count <= len(joints)
        names += [f"{key}_{joints[i].name if is_joint else i + 1}" for i in range(count)]
    for finger, cells in touch.items():
        names += [f"touch_{finger}_{cell + 1}" for cell in range(cells.shape[-1])]
    return names


class _Writer:
    def __init__(self, file: IO[str], hand: Hand, rate: float, keys: Sequence[str]):
        self._file, self._hand = file, hand
        self._rate = rate
        self._keys = [key for key in keys if key != "touch"]
        self.samples = 0

    def write(self, sample: Sample) -> None:
        if not self.samples:
            self._write_head(sample)
        row = [f"{sample.time:.6f}"]
        for value in sample.values.values():
            row += map(_number, value.tolist())
        for cells in sample.touch.values():
            row += map(str, cells.tolist())
        self._file.write(",".join(row) + "\n")
        self._file.flush()  # a full disk is told when it is met
        self.samples += 1

    def _write_head(self, sample: Sample) -> None:
        address = self._hand.address
        head = {
            _HEAD: _VERSION,
            "address": address.text,
            "model": address.model,
            "side": address.side,
            "rate_hz": int(self._rate) if self._rate == int(self._rate) else self._rate,
            "quantities": self._keys,
        }
        self._file.write("# " + json.dumps(head, separators=(",", ":"), ensure_ascii=False) + "\n")
        self._file.write(",".join(_columns(sample.values, sample.touch, self._hand.joints)) + "\n")


class Recorder:
    """A recording that is being written, by a thread of its own. A context manager, which ends it."""

    def __init__(self, hand: Hand, path: Path, rate: float, values: Sequence[str], overwrite: bool):
        self.path = os.fspath(path)
        self._reader = Reader(hand, rate, values)  # so that bad arguments leave the file as it is
        self._file = open(path, "w" if overwrite else "x", encoding="utf-8")
        self._writer = _Writer(self._file, hand, rate, self._reader.values)
        try:
            self._reader.start(self._writer.write, lambda: None)
        except BaseException:
            self._file.close()
            if not overwrite:  # otherwise it may have been there before, even as a device
                os.unlink(path)
            raise

    @property
    def samples(self) -> int:
        """How many have been written."""
        return self._writer.samples

    @property
    def lost(self) -> int:
        """Readings that failed."""
        return self._reader.lost

    def close(self) -> None:
        """Ends the recording. Raises what has ended it before: the hand that went, or the disk that is full."""
        self._reader.close()
        self._file.close()
        error, self._reader.error = self._reader.error, None
        if error is not None:
            raise error

    def wait(self, seconds: float = math.inf, *, samples: Optional[int] = None) -> None:
        """Waits that long, until so many samples have been written, or until something ends the recording."""
        end = time.monotonic() + seconds
        step = 0.05 if samples is None else 0.002
        while time.monotonic() < end and self._reader.error is None:
            if samples is not None and self.samples >= samples:
                return
            time.sleep(min(step, max(0.0, end - time.monotonic())))

    def __enter__(self) -> "Recorder":
        return self

    def __exit__(self, kind: Optional[type], *_: object) -> None:
        try:
            self.close()
        except Exception:
            if kind is None:  # what ends the block matters more
                raise


def record(
    hand: Hand,
    path: Path,
    *,
    rate: float = 50.0,
    values: Optional[Sequence[str]] = None,
    seconds: Optional[float] = None,
    overwrite: bool = False,
) -> Recorder:
    """Records a hand into a CSV file, as `korvane record` writes it: positions and, of a model that has them,
    angles, or the `values` that are named.

    Goes on in the background, until the recorder that it returns is closed; with `seconds` it waits that long
    and ends. A file that exists raises FileExistsError, unless `overwrite` is set. Arguments that are
    wrong leave it as it is.
    """
    if values is None:
        values = ("positions", "angles") if hand.joints else ("positions",)
    recorder = Recorder(hand, path, rate, values, overwrite)
    if seconds is not None:
        with recorder:
            recorder.wait(seconds)
    return recorder


class Recording:
    """A recording as arrays. `recording["positions"]` is (samples, motors), `recording.time` (samples,) [s]."""

    def __init__(
        self, head: Mapping[str, Any], time: Floats, values: Mapping[str, Floats], touch: Mapping[str, Floats]
    ):
        self.address: str = head.get("address", "")
        self.model: str = head["model"]
        self.side: str = head.get("side", "right")
        self.rate: float = head.get("rate_hz", 0.0)
        self.time = time
        self.values = dict(values)
        #: By finger, (samples, cells).
        self.touch = dict(touch)

    def __getitem__(self, key: str) -> Floats:
        return self.values[key]

    def __len__(self) -> int:
        return len(self.time)

    def columns(self) -> Dict[str, Floats]:
        """Every column by the name that it has in the file: `pandas.DataFrame(recording.columns())`."""
        names = _columns(self.values, self.touch, MODELS[self.model].joints(self.side))
        arrays = [self.time]
        for table in (self.values, self.touch):
            for array in table.values():
                arrays += list(array.T)
        return dict(zip(names, arrays))


def load(path: Path) -> Recording:
    """Reads a recording that `korvane.record` or `korvane record` has written as CSV.

    Raises BadArgument, which names the line, if anything is wrong with it.
    """
    with open(path, encoding="utf-8") as file:
        try:
            lines = [(number, line.rstrip("\n")) for number, line in enumerate(file, 1) if line.strip()]
        except UnicodeDecodeError as error:
            raise BadArgument(f"{os.fspath(path)} is no text: {error}") from None
    return _Loader(os.fspath(path), lines).load()


class _Loader:
    def __init__(self, path: str, lines: List[Tuple[int, str]]):
        self._path, self._lines = path, lines

    def _bad(self, line: int, reason: str) -> BadArgument:
        return BadArgument(f"{self._path}, line {line}: {reason}")

    def load(self) -> Recording:
        if len(self._lines) < 3:
            raise self._bad(len(self._lines), "a head, the names of the columns and a sample are expected")
        head = self._head()
        names = self._lines[1][1].split(",")
        if names[0] != "time_s":
            raise self._bad(self._lines[1][0], "the first column must be time_s")
        rows = np.array([self._row(number, line, len(names)) for number, line in self._lines[2:]])
        for row in np.flatnonzero(np.diff(rows[:, 0]) < 0):
            raise self._bad(self._lines[row + 3][0], "its time lies before that of the line above")
        fingers = dict.fromkeys(name.split("_")[1] for name in names if name.startswith("touch_"))
        values = {key: rows[:, self._columns_of(names, key)] for key in head["quantities"]}
        touch = {finger: rows[:, self._columns_of(names, f"touch_{finger}")] for finger in fingers}
        return Recording(head, rows[:, 0], values, touch)

    def _head(self) -> Dict[str, Any]:
        number, line = self._lines[0]
        try:
            head: Dict[str, Any] = json.loads(line[2:] if line.startswith("# ") else "")
        except ValueError:
            head = {}
        if not isinstance(head, dict) or _HEAD not in head or not isinstance(head.get("quantities"), list):
            raise self._bad(number, "that is no recording of korvane in CSV")
        if head[_HEAD] != _VERSION:
            raise self._bad(number, "a later version of korvane wrote that")
        if head.get("model") not in MODELS:
            raise self._bad(number, f"there is no model {head.get('model')}")
        return head

    def _row(self, number: int, line: str, count: int) -> List[float]:
        cells = line.split(",")
        if len(cells) != count:
            raise self._bad(number, f"it has {len(cells)} values and there are {count} columns")
        try:
            row = [float(cell) for cell in cells]
        except ValueError as error:
            raise self._bad(number, str(error)) from None
        if not all(map(math.isfinite, row)):
            raise self._bad(number, "not all of it are numbers")
        return row

    @staticmethod
    def _columns_of(names: Sequence[str], key: str) -> List[int]:
        return [i for i, name in enumerate(names) if name.startswith(key + "_")]
