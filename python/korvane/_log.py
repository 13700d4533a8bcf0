"""The library's lines in Python's logging, as the logger "korvane"."""

from __future__ import annotations

import logging
import threading
from typing import Optional

from . import _korvane

logger = logging.getLogger("korvane")
# Nothing on the streams, unless the program asks for it.
logger.addHandler(logging.NullHandler())

#: By korvane::LogLevel.
_LEVELS = (logging.DEBUG, logging.INFO, logging.WARNING, logging.ERROR)
_WAIT_MS = 60_000

_thread: Optional[threading.Thread] = None
_ends = False


def _write(wait_ms: int) -> None:
    for level, line in _korvane.log_lines(wait_ms):
        # The line may hold percent signs.
        logger.log(_LEVELS[level], "%s", line)


def drain() -> None:
    """Logs what has come so far."""
    _write(0)


def _run() -> None:
    while not _ends:
        _write(_WAIT_MS)


def start() -> None:
    """Logs on a thread of its own from now on: lines also come when nobody calls."""
    global _thread
    if _thread is None and not _ends:
        _thread = threading.Thread(target=_run, name="korvane-log", daemon=True)
        _thread.start()


def stop() -> None:
    """At the end of the process."""
    global _ends, _thread
    _ends = True
    _korvane.end_log_lines()
    if _thread is not None:
        _thread.join()
        _thread = None
    drain()


def forget_thread() -> None:
    """In the child of a fork, which has only the thread that forked."""
    global _thread
    _thread = None
    _korvane.renew_log_lines()
