"""What is still open is closed in order when the interpreter ends; after a fork the child starts anew."""

from __future__ import annotations

import atexit
import os
import time
import weakref
from typing import Protocol

from . import _korvane, _log


class Closable(Protocol):
    def close(self) -> None: ...


#: Readers first: they call hands.
_readers: "weakref.WeakSet[Closable]" = weakref.WeakSet()
_hands: "weakref.WeakSet[Closable]" = weakref.WeakSet()


def register_reader(reader: Closable) -> None:
    _readers.add(reader)


def register_hand(hand: Closable) -> None:
    _hands.add(hand)


def _wait_for_updates() -> None:
    if not _korvane.running_updates():
        return
    _log.logger.warning(
        "an update of firmware is running: waiting for its end, as a hand whose update breaks off has no "
        "firmware; Ctrl-C to end at once"
    )
    while _korvane.running_updates():
        time.sleep(0.05)


def _end() -> None:
    for open_ones in (_readers, _hands):
        for one in list(open_ones):
            one.close()
    try:
        _wait_for_updates()
    finally:
        _log.stop()


def _begin_anew() -> None:
    _readers.clear()
    _korvane.forget_updates()
    _log.forget_thread()


atexit.register(_end)
os.register_at_fork(after_in_child=_begin_anew)
