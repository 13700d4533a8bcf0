"""What is known of each model without asking a hand."""

from __future__ import annotations

import enum
from dataclasses import dataclass
from typing import Dict, NamedTuple, Optional, Tuple

from . import _korvane

__all__ = [
    "Address", "ControlMode", "FINGERS", "Info", "Joint", "Model", "MODELS", "MotorErrors", "UpdateStatus",
]


class Joint(NamedTuple):
    """A joint whose kinematics is known."""

    name: str  #: "thumb_1", "index_flexion" and the like; the same on both sides.
    lower: float  #: Least angle [rad].
    upper: float  #: Greatest angle [rad].
    active_index: int  #: Its place among the active joints, from 0; -1 for a coupled joint.
    can_be_commanded: bool  #: Whether a target reaches it.


@dataclass(frozen=True)
class Model:
    """A model of hands."""

    name: str  #: "brisa" and the like.
    class_name: str  #: What C++ calls it.
    motors: int  #: Positions that it tells; each belongs to a motor if `has_motors`.
    has_motors: bool  #: It can be commanded.
    position_max: int  #: Positions are 0 to this.
    gestures: int  #: Gestures are 0 to one less than this.
    has_service: bool  #: There is a service interface.
    has_serial: bool  #: It is to be had on a serial link, too.
    tells_by_reports: bool  #: Temperatures and currents come only in reports, which are off at first.

    def joints(self, side: str = "right") -> Tuple[Joint, ...]:
        """The joints in the order of `Hand.joint_angles`; none where the kinematics isn't known."""
        return tuple(Joint(*row) for row in _korvane.joints(list(MODELS).index(self.name), side == "left"))


#: All models by name.
MODELS: Dict[str, Model] = {row[0]: Model(*row) for row in _korvane.models()}

#: Names of the fingers by the library's numbers, from 1.
FINGERS = ("thumb", "index", "middle", "ring", "little", "palm", "dorsum")


class ControlMode(enum.IntEnum):
    """How a motor follows its targets. What the modes without a name do is the firmware's matter."""

    MODE_0 = 0
    MODE_1 = 1
    MODE_2 = 2
    MODE_3 = 3
    POSITION_CURRENT = 4
    VELOCITY_CURRENT = 5
    POSITION_VELOCITY_CURRENT = 6
    MODE_7 = 7


class MotorErrors(enum.IntFlag):
    """The bits of an error word."""

    STALLED = 1
    OVERHEATED = 2
    OVERCURRENT = 4
    MOTOR_FAULT = 8
    COMMUNICATION_FAULT = 16


class UpdateStatus(enum.IntEnum):
    """What an update of firmware reports."""

    FAILED = -1
    COMPLETE = 0
    FILE_LOADED = 1
    REQUESTING_UPGRADE = 2
    UPGRADE_ACCEPTED = 3
    PACKET_ACKNOWLEDGED = 4
    FINISH_ACKNOWLEDGED = 5
    RESTART_ACKNOWLEDGED = 6
    RECONNECTING = 7
    LINK_RECONNECTED = 8
    LINK_RECONNECTING = 9


class Address(NamedTuple):
    """Where a hand is and which one it is."""

    text: str  #: Such as "can0:tessel:2"; what `korvane.open` takes.
    model: Optional[str]  #: Nothing in an address that leaves it open.
    id: Optional[int]  #: Nothing in an address that leaves it open.
    side: str  #: "left" or "right".
    link: str  #: "socketcan", "zlg", "hcan" or "serial".

    @classmethod
    def parse(cls, text: str) -> "Address":
        """Reads an address. Raises BadArgument with what is wrong with it."""
        return cls(*_korvane.parse(text))

    def __str__(self) -> str:
        return self.text


class Info(NamedTuple):
    """What a hand says of itself."""

    product_model: str
    serial_number: str
    hardware: str  #: Version, as in "1.0.2".
    firmware: str  #: Version, as in "1.2.0".
    supply_voltage_mv: int
    active_dof: int  #: Active degrees of freedom.


def version_text(version: Tuple[int, int, int, int]) -> str:
    return ".".join(map(str, version if version[3] else version[:3]))


def info_of(row: _korvane.VendorRow) -> Info:
    model, serial, hardware, firmware, voltage, dof = row
    return Info(model, serial, version_text(hardware), version_text(firmware), voltage, dof)
