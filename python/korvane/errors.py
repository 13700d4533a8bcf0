"""What is raised when something fails: KorvaneError and a class for each way of failing."""

from __future__ import annotations

import re
from typing import Dict, Type

__all__ = [
    "BadArgument", "BadReply", "KorvaneError", "LinkLost", "NoReply", "NotSupported", "Refused", "SendFailed",
]


class KorvaneError(Exception):
    """An operation that failed. Its text names the hand and the operation."""

    #: What the library calls the operation, such as "GetAllJointMotorPosi"; "" where none was called.
    operation: str
    #: The address of the hand; "" where none is meant.
    hand: str
    #: What a person can do about it, in one or a few lines; "" where nothing is known that helps.
    advice: str
    #: errno, where the system gave one; otherwise 0.
    system_error: int

    def __init__(self, text: str, *, operation: str = "", hand: str = "", advice: str = "", system_error: int = 0):
        super().__init__(text)
        self.operation = operation
        self.hand = hand
        self.advice = advice
        self.system_error = system_error


class NoReply(KorvaneError):
    """The request went out, and nothing came back in time."""


class LinkLost(KorvaneError):
    """There is no link: it couldn't be opened, it has gone, or the hand is closed."""


class SendFailed(KorvaneError):
    """The request couldn't be sent."""


class Refused(KorvaneError):
    """The hand said no; or another model answers, or several hands do."""


class BadReply(KorvaneError):
    """Something came back that can't be the answer, or only a part of it."""


class NotSupported(KorvaneError):
    """This model, or this link, doesn't have the operation."""


class BadArgument(KorvaneError, ValueError):
    """Refused before anything was sent."""


_CLASSES: Dict[str, Type[KorvaneError]] = {
    "BAD_ARGUMENT": BadArgument,
    "NOT_SUPPORTED": NotSupported,
    "NO_LINK": LinkLost,
    "SEND_FAILED": SendFailed,
    "NO_REPLY": NoReply,
    "BAD_REPLY": BadReply,
    "REFUSED": Refused,
}
#: What only a log needs: the level, the class, the frame. "[ERROR][Class][Operation] [CANID:...][DATA:...] "
_MARKS = re.compile(r"(\[[^]]*\]:? ?)+")


def _plain(operation: str, text: str) -> str:
    """The text of a failure as a sentence that begins with the operation."""
    marks = _MARKS.match(text)
    if marks:
        text = text[marks.end():]
    else:
        text = text.replace("[ERROR]: ", "", 1)
    return text if not operation or operation in text else f"{operation}: {text}"


def error_of(
    kind: str, operation: str, text: str, advice: str = "", system_error: int = 0, hand: str = ""
) -> KorvaneError:
    """The exception for a failure of the library, once its lines are in the log."""
    from . import _log  # which needs the library, and the library this module

    _log.drain()
    plain = _plain(operation, text)
    if hand and hand not in plain:
        plain = f"{hand}: {plain}"
    error = _CLASSES.get(kind, KorvaneError)
    return error(plain, operation=operation, hand=hand, advice=advice, system_error=system_error)
