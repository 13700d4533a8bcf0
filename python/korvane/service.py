"""The service interface, by which technicians set hands up: of a Brisa and of a Lumen.

Axes count from 1 and are the motors of the public interface; positions are 0 to 4096. The units of currents,
velocities, temperatures, loads, torques and times aren't known to the library, which passes the numbers on;
`private_korvane.h` tells how to find one out. One hand that answers on a bus at a time.
"""

from __future__ import annotations

from typing import NamedTuple, Union

import numpy as np
import numpy.typing as npt

from . import _korvane, _log
from .hand import CLASSES, Bytes, Hand, Ints, Numbers, Words
from .models import Address, version_text

__all__ = ["AxisLimits", "AxisReply", "FirmwareVersion", "Service", "open"]


class AxisLimits(NamedTuple):
    """In positions, axis 1 first."""

    lower: Words
    upper: Words


class AxisReply(NamedTuple):
    """What each axis did when a command for all was taken. A Lumen may tell `pos` alone."""

    pos: Words
    second: Words  #: What it means isn't known to the library.
    third: Bytes  #: What it means isn't known to the library.
    fourth: Bytes  #: What it means isn't known to the library.


class FirmwareVersion(NamedTuple):
    """The versions of a device, as in "1.2.0"."""

    first: str  #: Its first number is the product code.
    firmware: str
    hardware: str
    active_dof: int  #: Active degrees of freedom.


def open(address: Union[str, Address]) -> "Service":  # noqa: A001
    """The service interface of the hand at an address. Raises Refused where several hands on the bus would
    take its requests for theirs.
    """
    _log.start()
    handle = _korvane.Handle(str(address), True)
    return Service(handle, Address(*handle.address))


class Service:
    """A hand with its service interface; `hand` is what the public protocol can do. A context manager."""

    def __init__(self, handle: _korvane.Handle, address: Address) -> None:
        self._handle = handle
        self._hand = CLASSES[address.model or ""](handle, address)

    @property
    def hand(self) -> Hand:
        """The same hand by the public protocol. Closing either closes both."""
        return self._hand

    def close(self) -> None:
        """Closes the link."""
        self._hand.close()

    def __enter__(self) -> "Service":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<korvane.service.Service {self._hand.address}{' closed' if self._hand.closed else ''}>"

    def set_power_state(self, state: int) -> None:
        """Switches the power of the motors; which values mean on and off is the device's matter."""
        self._handle.service_set_power_state(state)

    def power_state(self) -> int:
        """The power state of the motors."""
        return self._handle.service_power_state()

    def set_axis_homing(self, axis: int, value: int) -> None:
        """Sets the homing offset of one axis, -4095 to 4095."""
        self._handle.service_set_axis_homing(axis, value)

    def set_id(self, id: int) -> None:
        """Gives the device another identifier, 1 to 2046; this object goes on with the one it has."""
        self._handle.service_set_id(id)

    def save_param(self) -> None:
        """Keeps the present settings for good: one that isn't saved is gone after a restart."""
        self._handle.service_save_param()

    def set_single_axis_pos(self, axis: int, pos: int) -> int:
        """Moves one axis to 0 to 4096. Returns the position that the hand reports."""
        return self._handle.service_set_single_axis_pos(axis, pos)

    def single_axis_pos(self, axis: int) -> int:
        """Position of one axis. On a serial port take all_axis_pos: replies there don't name their axis."""
        return self._handle.service_single_axis_pos(axis)

    def set_all_axis_pos(self, positions: Numbers) -> AxisReply:
        """Moves all axes: ten positions, four of a Lumen."""
        return AxisReply(*self._handle.service_set_all_axis_pos(positions))

    def all_axis_pos(self) -> Words:
        """Positions of all axes, (10,) uint16; (4,) of a Lumen."""
        return self._handle.service_all_axis_pos()

    def all_axis_current(self) -> Words:
        """Currents, (10,) uint16; the first four count of a Lumen."""
        return self._handle.service_all_axis_current()

    def all_axis_velocity(self) -> Ints:
        """Velocities, (10,) int16; the first four count of a Lumen."""
        velocities: npt.NDArray[np.int16] = self._handle.service_all_axis_velocity().view(np.int16)
        return velocities

    def all_axis_temp(self) -> Bytes:
        """Temperatures, (10,) uint8; the first four count of a Lumen."""
        return self._handle.service_all_axis_temp()

    def error_code(self) -> int:
        """The error word; 0 if there is no error."""
        return self._handle.service_error_code()

    def clear_error(self) -> None:
        """Clears the errors that the hand remembers."""
        self._handle.service_clear_error()

    def play_action(self, action: int) -> None:
        """Plays an action that the device has stored. Keep clear of the hand."""
        self._handle.service_play_action(action)

    def all_axis_pos_range(self) -> Words:
        """The range of each axis, (10,) uint16; (4,) of a Lumen."""
        return self._handle.service_all_axis_pos_range()

    def fingertip_sensor(self, sensor: int) -> Bytes:
        """The raw block of one fingertip sensor, 1 to 7, uint8."""
        return self._handle.service_fingertip_sensor(sensor)

    def all_fingertip_sensor_a(self) -> Bytes:
        """The raw blocks of sensors 1 to 3, (48,) uint8."""
        return self._handle.service_all_fingertip_sensor_a()

    def all_fingertip_sensor_b(self) -> Bytes:
        """The raw blocks of sensors 4 and 5, (32,) uint8."""
        return self._handle.service_all_fingertip_sensor_b()

    def all_fingertip_sensor_c(self) -> Bytes:
        """The raw blocks of sensors 6 and 7, (50,) uint8."""
        return self._handle.service_all_fingertip_sensor_c()

    def set_run_mode(self, axis: int, mode: int) -> None:
        """Sets the run mode of one axis."""
        self._handle.service_set_run_mode(axis, mode)

    def set_single_actual_axis_pos(self, axis: int, pos: int) -> int:
        """Moves one axis on the actual position scale. Returns the position that the hand reports."""
        return self._handle.service_set_single_actual_axis_pos(axis, pos)

    def single_actual_axis_pos(self, axis: int) -> int:
        """Position of one axis on the actual position scale."""
        return self._handle.service_single_actual_axis_pos(axis)

    def set_all_actual_axis_pos(self, positions: Numbers) -> Words:
        """Moves all axes on the actual position scale. Returns the positions that the hand reports."""
        return self._handle.service_set_all_actual_axis_pos(positions)

    def all_actual_axis_pos(self) -> Words:
        """Positions of all axes on the actual position scale, (10,) uint16; (4,) of a Lumen."""
        return self._handle.service_all_actual_axis_pos()

    def all_load_data(self) -> Words:
        """Loads, (10,) uint16; the first four count of a Lumen."""
        return self._handle.service_all_load_data()

    def set_axis_min_pos(self, axis: int, pos: int) -> None:
        """Sets the lower limit of one axis, a position of 0 to 4096."""
        self._handle.service_set_axis_min_pos(axis, pos)

    def set_axis_max_pos(self, axis: int, pos: int) -> None:
        """Sets the upper limit of one axis, a position of 0 to 4096."""
        self._handle.service_set_axis_max_pos(axis, pos)

    def clear_all_limit_pos(self) -> None:
        """Clears the limits of all axes."""
        self._handle.service_clear_all_limit_pos()

    def set_all_run_speed(self, speeds: Numbers) -> None:
        """Sets the speeds of all axes: ten, also of a Lumen."""
        self._handle.service_set_all_run_speed(speeds)

    def set_overload_torque(self, axis: int, torque: int) -> None:
        """Sets the overload torque of one axis, 0 to 1000; keep to 255 over CAN FD, which sends the low byte."""
        self._handle.service_set_overload_torque(axis, torque)

    def set_overload_protection_time(self, axis: int, time: int) -> None:
        """Sets how long an overload of one axis may last; keep to 255 over CAN FD."""
        self._handle.service_set_overload_protection_time(axis, time)

    def set_protected_torque(self, axis: int, torque: int) -> None:
        """Sets the torque of one axis under protection, 0 to 100."""
        self._handle.service_set_protected_torque(axis, torque)

    def set_min_torque(self, axis: int, torque: int) -> None:
        """Sets the least torque of one axis."""
        self._handle.service_set_min_torque(axis, torque)

    def set_protective_current(self, axis: int, current: int) -> None:
        """Sets the protective current of one axis, 0 to 3250."""
        self._handle.service_set_protective_current(axis, current)

    def all_electric_motor_id(self) -> Bytes:
        """Identifiers of the motors, (10,) uint8."""
        return self._handle.service_all_electric_motor_id()

    def all_sensor_id(self) -> Bytes:
        """Identifiers of the sensors, (7,) uint8."""
        return self._handle.service_all_sensor_id()

    def set_all_axis_cvp_upload_interval(self, interval: int) -> None:
        """How often the device uploads currents, velocities and positions; leave it off over CAN FD."""
        self._handle.service_set_all_axis_cvp_upload_interval(interval)

    def all_axis_cvp(self) -> Bytes:
        """The record of currents, velocities and positions as it came, (60,) uint8."""
        return self._handle.service_all_axis_cvp()

    def axis_limit_pos(self) -> AxisLimits:
        """The limits of all axes, in positions."""
        return AxisLimits(*self._handle.service_axis_limit_pos())

    def set_right_or_left(self, side: int) -> None:
        """Tells the device which of the two hands it is, 0 or 1."""
        self._handle.service_set_right_or_left(side)

    def set_pos_speed_cur_data(self, pos: Numbers, speed: Numbers, current: Numbers) -> AxisReply:
        """Moves all axes at once: ten positions, ten speeds and ten currents, also of a Lumen."""
        return AxisReply(*self._handle.service_set_pos_speed_cur_data(pos, speed, current))

    def finger_tactile_force(self) -> Bytes:
        """The raw record of fingertip forces, (35,) uint8. Over CAN FD only."""
        return self._handle.service_finger_tactile_force()

    def set_temperature_threshold(self, threshold: int) -> None:
        """Sets the temperature at which the device protects itself."""
        self._handle.service_set_temperature_threshold(threshold)

    def set_control_source(self, source: int) -> int:
        """Chooses where the hand takes commands from, 0 or 1. Returns the source in force over CAN FD."""
        return self._handle.service_set_control_source(source)

    def control_source(self) -> int:
        """Where the hand takes commands from."""
        return self._handle.service_control_source()

    def set_product_serial_number(self, number: bytes) -> None:
        """Writes the product serial number: 19 bytes."""
        self._handle.service_set_product_serial_number(list(number))

    def product_serial_number(self) -> bytes:
        """The product serial number, 19 bytes."""
        return self._handle.service_product_serial_number()

    def fw_version(self) -> FirmwareVersion:
        """The versions of the device."""
        first, firmware, hardware, dof = self._handle.service_fw_version()
        return FirmwareVersion(version_text(first), version_text(firmware), version_text(hardware), dof)
