"""Hands by their addresses, and finding those that are there."""

from __future__ import annotations

from typing import List, NamedTuple, Sequence, Type, TypeVar, Union, overload

from . import _korvane, _log
from .errors import BadArgument, KorvaneError, Refused, error_of
from .hand import CLASSES, Hand
from .models import Address, Info, info_of

__all__ = ["FoundHand", "FoundHands", "find", "open"]

AnyHand = TypeVar("AnyHand", bound=Hand)


class FoundHand(NamedTuple):
    """A hand that answered."""

    address: Address  #: With model and id; `korvane.open` takes it.
    info: Info


class FoundHands(List[FoundHand]):
    """The hands that answered, by link and id."""

    #: Links that there are and that couldn't be asked, and what answered without being a known hand.
    not_asked: List[KorvaneError]


@overload
def open(address: Union[str, Address]) -> Hand: ...


@overload
def open(address: Union[str, Address], kind: Type[AnyHand]) -> AnyHand: ...


def open(address: Union[str, Address], kind: Type[Hand] = Hand) -> Hand:
    """The hand at an address such as "can0:tessel:2", once it has answered; an object of its model's class.

    `kind`, such as `korvane.Brisa`, says which class it must be, also to a type checker. Takes milliseconds if
    the hand is there, up to 2 s otherwise. Raises what keeps it from being used; `advice` says what helps.
    """
    _log.start()
    text = str(address)
    handle = _korvane.Handle(text, False)
    where = Address(*handle.address)
    made = CLASSES[where.model or ""]
    if not issubclass(made, kind):
        handle.close()
        raise Refused(f"{where}: a {where.model} answers, and no {kind.__name__}", operation="Open", hand=text)
    return made(handle, where)


def find(
    links: Sequence[str] = (),
    *,
    places: Sequence[Union[str, Address]] = (),
    serial_ports: Sequence[str] = (),
    baud: int = 115200,
    ids: Sequence[int] = (),
    answer_ms: int = 100,
) -> FoundHands:
    """All hands on all links of this machine, or on these links: "socketcan", "zlg", "hcan", "serial".

    `places` are addresses whose links alone are looked at; `serial_ports` are asked besides the USB ones.
    Takes about half a second for each channel. Leaves alone what is in use.
    """
    _log.start()
    if not all(1 <= one <= 127 for one in ids):
        raise BadArgument(f"ids are 1 to 127: {list(ids)}", operation="FindHands")
    hands, not_asked = _korvane.find(
        list(links), [str(place) for place in places], list(serial_ports), baud, list(ids), answer_ms
    )
    found = FoundHands(FoundHand(Address(*address), info_of(info)) for address, info in hands)
    found.not_asked = [error_of(*failure) for failure in not_asked]
    return found
