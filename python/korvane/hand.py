"""A hand: one class for each model, with what it can do.

What asks the hand is a method, and what is known without asking is a property. Methods let other Python
threads run while they wait; calls of several threads to one hand go out one after the other.

Units: positions are the model's, 0 to `Hand.position_max`; joint angles are radians. Those of velocities,
currents, thresholds, temperatures and report periods are the hand's own and aren't known to the library.
Motors count from 1. Arrays hold one value for each motor, motor 1 first, so that their shape is (motors,).

What fails raises a `korvane.KorvaneError`, and nothing that failed returns a value.
"""

from __future__ import annotations

import math
import os
import time
from typing import TYPE_CHECKING, Any, Callable, Dict, List, Mapping, NamedTuple, Optional, Sequence, Tuple, Union

import numpy as np
import numpy.typing as npt

from . import _korvane, _lifetime
from .errors import BadArgument, KorvaneError, NoReply, NotSupported
from .models import FINGERS, MODELS, Address, ControlMode, Info, Joint, Model, UpdateStatus, info_of

if TYPE_CHECKING:
    from .recording import Recording
    from .streaming import Stream

__all__ = ["Brisa", "Hand", "Lumen", "Quill", "Statistics", "Target", "Tessel", "Vanta"]

Ints = npt.NDArray[np.int16]
Words = npt.NDArray[np.uint16]
Bytes = npt.NDArray[np.uint8]
Floats = npt.NDArray[np.float64]
#: Any sequence of numbers, arrays too.
Numbers = Union[Sequence[float], npt.NDArray[Any]]
#: By the order of the active joints, or by the names of some joints.
Angles = Union[Numbers, Mapping[str, float]]
#: current, total, status; see `Hand.update`.
Progress = Callable[[int, int, UpdateStatus], object]

_RATE = 50.0
_FAILURES_IN_A_ROW = 3
_SERIAL_PACKETS = 150
_CANNOT_OPEN = -2


class Target(NamedTuple):
    """What one motor is to do in `Hand.set_targets`."""

    motor: int  #: From 1.
    position: Optional[float] = None
    velocity: Optional[float] = None
    current: Optional[float] = None  #: The force, as current.


class Statistics(NamedTuple):
    """What has happened on a hand's link since it was opened."""

    requests: int  #: That a reply was awaited for.
    replies: int  #: That came in time.
    send_failures: int
    timeouts: int  #: Requests without a reply in time.
    bad_replies: int
    unmatched_frames: int  #: Frames that no request waited for.
    link_lost: bool  #: The port or interface is gone; open the hand anew.


class Hand:
    """What every hand has. `korvane.open` gives an object of its model's class.

    A context manager, which closes the link; it is also closed when nothing refers to it any more.
    """

    model_name = ""

    def __init__(self, handle: _korvane.Handle, address: Address) -> None:
        self._handle = handle
        self._address = address
        self._model = MODELS[address.model or ""]
        self._joints = self._model.joints(address.side)
        _lifetime.register_hand(self)

    # --- What is known without asking --------------------------------------------------------------

    @property
    def address(self) -> Address:
        """Where it is, with its model and id."""
        return self._address

    @property
    def model(self) -> Model:
        """What is known of its model."""
        return self._model

    @property
    def id(self) -> int:
        """Its id on the link."""
        return self._address.id or 0

    @property
    def side(self) -> str:
        """ "left" or "right", as its address says: the hand itself isn't asked."""
        return self._address.side

    @property
    def motors(self) -> int:
        """How many positions it tells; 12 of a Tessel."""
        return self._model.motors

    @property
    def position_max(self) -> int:
        """Positions are 0 to this."""
        return self._model.position_max

    @property
    def joints(self) -> Tuple[Joint, ...]:
        """Names and limits of its joints, in the order of `joint_angles`; none where they aren't known."""
        return self._joints

    @property
    def active_joints(self) -> Tuple[Joint, ...]:
        """Those of the joints that have an angle of their own, in the order of `active_joint_angles`."""
        return tuple(sorted((j for j in self._joints if j.active_index >= 0), key=lambda j: j.active_index))

    @property
    def closed(self) -> bool:
        """Whether it can't be asked any more."""
        return self._handle.closed

    @property
    def updating(self) -> bool:
        """Whether an update of its firmware is running; every other call fails meanwhile."""
        return self._handle.updating

    @property
    def statistics(self) -> Statistics:
        """Counts of its link."""
        return Statistics(**self._handle.statistics())

    @property
    def reply_timeout_ms(self) -> int:
        """How long a request waits for its reply [ms]: 50 at first, held to 10 to 1000."""
        return self._handle.reply_timeout()

    @reply_timeout_ms.setter
    def reply_timeout_ms(self, ms: int) -> None:
        self._handle.set_reply_timeout(ms)

    @property
    def send_timeout_ms(self) -> int:
        """How long an adapter may take to send a frame [ms]; without effect on SocketCAN."""
        return self._handle.send_timeout()

    @send_timeout_ms.setter
    def send_timeout_ms(self, ms: int) -> None:
        self._handle.set_send_timeout(ms)

    @property
    def request_interval_ms(self) -> int:
        """Least time between two requests [ms]; 0 at first."""
        return self._handle.request_interval()

    @request_interval_ms.setter
    def request_interval_ms(self, ms: int) -> None:
        self._handle.set_request_interval(ms)

    def __repr__(self) -> str:
        return f"<korvane.{type(self).__name__} {self._address}{' closed' if self.closed else ''}>"

    # --- Its life ------------------------------------------------------------------------------------

    def close(self) -> None:
        """Closes the link, once calls that other threads are making have ended. May be called again."""
        self._handle.close()

    def __enter__(self: "_AnyHand") -> "_AnyHand":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    # --- What it is ----------------------------------------------------------------------------------

    def info(self) -> Info:
        """Asks the hand what it is."""
        return info_of(self._handle.vendor())

    def asked_id(self) -> int:
        """Asks the hand which id it has."""
        return self._handle.asked_id()

    def identify(self) -> str:
        """Asks which model answers under the hand's id: "brisa" and the like."""
        return self._handle.identify()

    def set_id(self, new_id: int) -> None:
        """Gives the hand another id, 1 to 127, and speaks to that from then on; no answer is waited for."""
        if not 1 <= new_id <= 127:
            raise self._bad(f"an id is 1 to 127, and not {new_id}")
        self._handle.set_id(new_id)

    def log_frames(self, on: bool) -> None:
        """Writes every frame to the logger "korvane", at level DEBUG."""
        self._handle.show_frames(on)

    def update(self, path: Union[str, "os.PathLike[str]"], progress: Optional[Progress] = None) -> None:
        """Replaces the hand's firmware by the file at `path`. Takes up to minutes.

        `progress(current, total, status)` is called on the calling thread. `total` is the number of packets
        once it is known, and `current` depends on the status; see `OtaProgressStatus` in C++.

        An update can't be stopped: where Ctrl-C or an exception of `progress` ends this call, the update goes
        on in the background, `updating` is true and every other call fails until it is done; the end of the
        interpreter waits for it.
        """
        name = os.fspath(path)
        self._check_firmware(name)
        report = None if progress is None else lambda c, t, s: progress(c, t, UpdateStatus(s))
        complete, code = self._handle.update(name, report)
        if not complete:
            raise KorvaneError(
                f"{self._address}: the update of its firmware failed with code {code}",
                operation="UpdateFirmware", hand=str(self._address), advice="Update once more, to the end.",
            )

    def _check_firmware(self, path: str) -> None:
        code, packets, _ = _korvane.look_at_firmware(path)
        if code:
            raise self._bad(f"{path} {'cannot be opened' if code == _CANNOT_OPEN else 'is empty or cannot be read'}")
        if self._address.link == "serial" and packets > _SERIAL_PACKETS:
            raise self._bad(
                f"{path} has {packets} packets of 2048 bytes, and an update over a serial port takes at most "
                f"{_SERIAL_PACKETS}: use CAN FD for it"
            )

    # --- Positions -----------------------------------------------------------------------------------

    def positions(self) -> Ints:
        """Positions of all motors, (motors,) int16; of a Quill's joints."""
        return self._handle.positions()

    def position(self, motor: int) -> int:
        """Position of one motor."""
        return self._handle.position(self._motor(motor))

    def set_positions(self, positions: Numbers) -> Ints:
        """Moves all motors, as fast as they go. Returns the positions that the hand echoes."""
        return self._handle.set_positions(positions)

    def set_position(self, motor: int, position: float) -> int:
        """Moves one motor. Returns what the hand echoes."""
        return self._handle.set_position(self._motor(motor), position)

    # --- Joint angles --------------------------------------------------------------------------------

    def joint_angles(self) -> Floats:
        """Angles of all joints, coupled ones included [rad], (len(joints),) float64."""
        self._need_joints()
        return self._handle.joint_angles()

    def active_joint_angles(self) -> Floats:
        """Angles of the active joints [rad], (len(active_joints),) float64."""
        self._need_joints()
        return self._handle.active_joint_angles()

    def set_joint_angles(self, angles: Angles) -> Ints:
        """Moves joints to angles [rad], as fast as they go: all active ones in their order, or those that a
        mapping names; the others then keep their place. Angles beyond the limits raise BadArgument. Returns
        the positions that the hand echoes.
        """
        return self.set_positions(self.positions_for(angles))

    def complete_angles(self, active_angles: Numbers) -> Floats:
        """Works out the angles of all joints from those of the active ones [rad]. Asks nobody."""
        return self._handle.complete_angles(self._active(active_angles))

    def positions_for(self, angles: Angles) -> Ints:
        """The positions that have these angles [rad], see `set_joint_angles`. Asks the hand where it stands,
        unless all active joints are given.
        """
        self._need_joints()
        if not isinstance(angles, Mapping):
            return self._to_positions(self._active(angles))
        pose = np.clip(self.positions(), 0, self.position_max)
        before = self.angles_for(pose)
        wanted = before.copy()
        for name, angle in angles.items():
            joint = self._joint_named(name)
            wanted[joint.active_index] = self._within(joint, angle)
        # Motors whose joints keep their angles keep their positions to the unit.
        old, new = self._to_positions(before, held=True), self._to_positions(wanted)
        changed: Ints = np.where(old == new, pose, new).astype(np.int16)
        return changed

    def angles_for(self, positions: Numbers) -> Floats:
        """Angles of the active joints [rad] at these positions. Asks nobody."""
        self._need_joints()
        if len(positions) != self.motors:
            raise self._bad(f"a {self._model.name} has {self.motors} motors; {len(positions)} positions were given")
        return np.array(self._handle.to_angles([int(round(p)) for p in positions]))

    # --- Moving --------------------------------------------------------------------------------------

    def gesture(self, number: int) -> None:
        """Moves the hand into one of its model's gestures, as fast as it goes."""
        self._handle.gesture(self._gesture(number))

    def move(
        self,
        positions: Optional[Numbers] = None,
        *,
        angles: Optional[Angles] = None,
        gesture: Optional[int] = None,
        seconds: float = 1.0,
    ) -> None:
        """Moves straight from where it stands to positions, to joint angles or into a gesture in that time,
        by a command 50 times a second. Ctrl-C ends it, and then nothing more is sent. Raises what failed once
        the hand hasn't answered three times in a row.
        """
        if sum(target is not None for target in (positions, angles, gesture)) != 1:
            raise self._bad("say one of positions, angles and gesture")
        if not seconds >= 0:
            raise self._bad(f"seconds can't be {seconds}")
        if angles is not None:
            positions = self.positions_for(angles)
        elif gesture is not None:
            positions = self._handle.gesture_positions(self._gesture(gesture))
        end = self._pose(positions if positions is not None else ())
        begin: Floats = np.clip(self.positions(), 0, self.position_max).astype(float)
        self._follow(seconds, lambda t: begin + (end - begin) * (t / seconds if seconds else 1))

    def play(self, recording: "Recording", *, speed: float = 1.0, lead_in: float = 1.0) -> None:
        """Plays the positions of a recording of the same model, `speed` times as fast, after `lead_in`
        seconds in which it goes to where the recording begins.
        """
        if recording.model != self._model.name or not self._model.has_motors:
            raise self._bad(f"the recording is of a {recording.model}; korvane replay can map it")
        if not 0 < speed < math.inf:
            raise self._bad(f"speed can't be {speed}")
        poses = np.clip(recording["positions"], 0, self.position_max)
        times = (recording.time - recording.time[0]) / speed
        if not np.isfinite(poses).all() or not (np.diff(times) >= 0).all():
            raise self._bad("a recording's positions must be numbers, and its times must not fall")
        self.move(poses[0], seconds=lead_in)
        self._follow(float(times[-1]), lambda t: np.array([np.interp(t, times, motor) for motor in poses.T]))

    def wait_until_still(self, timeout: float = 3.0) -> bool:
        """Waits until no motor moves any more; false if they still do after that time [s]."""
        end = time.monotonic() + timeout
        still, last = 0, self.positions()
        while still < 4:
            if time.monotonic() > end:
                return False
            time.sleep(0.05)
            now = self.positions()
            still = still + 1 if np.array_equal(now, last) else 0
            last = now
        return True

    def _follow(self, seconds: float, pose_at: Callable[[float], npt.NDArray[Any]]) -> None:
        begin = time.monotonic()
        lost, step = 0, 0
        while True:
            now = min(time.monotonic() - begin, seconds)
            try:
                self.set_positions(pose_at(now))
                lost = 0
            except (BadArgument, NotSupported):
                raise
            except KorvaneError:
                lost += 1
                if lost == _FAILURES_IN_A_ROW or self.closed or self.statistics.link_lost:
                    raise
            if now >= seconds:
                return
            # A command that took too long shifts those behind it.
            step = max(step + 1, int((time.monotonic() - begin) * _RATE))
            time.sleep(max(0.0, min(begin + step / _RATE, begin + seconds) - time.monotonic()))

    # --- Velocities, modes, thresholds, targets --------------------------------------------------------

    def velocities(self) -> Ints:
        """Velocities of all motors, (motors,) int16."""
        return self._handle.velocities()

    def velocity(self, motor: int) -> int:
        """Velocity of one motor."""
        return self._handle.velocity(self._motor(motor))

    def set_velocities(self, velocities: Numbers) -> None:
        """Sets the velocities of all motors."""
        self._handle.set_velocities(velocities)

    def set_velocity(self, motor: int, velocity: int) -> None:
        """Sets the velocity of one motor."""
        self._handle.set_velocity(self._motor(motor), velocity)

    def control_modes(self) -> Bytes:
        """Control modes of all motors, (motors,) uint8; see ControlMode."""
        return self._handle.control_modes()

    def control_mode(self, motor: int) -> ControlMode:
        """Control mode of one motor."""
        return ControlMode(self._handle.control_mode(self._motor(motor)))

    def set_control_modes(self, modes: Numbers) -> None:
        """Sets the control modes of all motors; on most links nothing tells whether a hand was there."""
        self._handle.set_control_modes([self._mode(mode) for mode in modes])

    def set_control_mode(self, motor: int, mode: int) -> None:
        """Sets the control mode of one motor."""
        self._handle.set_control_mode(self._motor(motor), self._mode(mode))

    def current_thresholds(self) -> Ints:
        """Current thresholds of all motors, (motors,) int16."""
        return self._handle.current_thresholds()

    def current_threshold(self, motor: int) -> int:
        """Current threshold of one motor."""
        return self._handle.current_threshold(self._motor(motor))

    def set_current_thresholds(self, thresholds: Numbers) -> None:
        """Sets the current thresholds of all motors."""
        self._handle.set_current_thresholds(thresholds)

    def set_current_threshold(self, motor: int, threshold: int) -> None:
        """Sets the current threshold of one motor."""
        self._handle.set_current_threshold(self._motor(motor), threshold)

    def set_targets(self, mode: int, targets: Sequence[Target]) -> None:
        """Commands several motors at once: POSITION_CURRENT needs position and current of each,
        VELOCITY_CURRENT velocity and current, POSITION_VELOCITY_CURRENT all three of at most 8 motors.
        """
        if mode not in (4, 5, 6):
            raise self._bad(f"the mode must be 4, 5 or 6, and not {mode}")
        for target in targets:
            self._motor(target[0])
        self._handle.set_targets(mode, [Target(*target) for target in targets])

    # --- Reports ---------------------------------------------------------------------------------------

    def errors(self) -> Words:
        """Error words of all motors, (motors,) uint16; see MotorErrors."""
        return self._handle.errors()

    def error(self, motor: int) -> int:
        """Error word of one motor; see MotorErrors."""
        return self._handle.error(self._motor(motor))

    def currents(self) -> Ints:
        """Currents of all motors, (motors,) int16. A Tessel tells the last report, see set_current_periods."""
        return self._handle.currents()

    def current(self, motor: int) -> int:
        """Current of one motor."""
        return self._handle.current(self._motor(motor))

    def temperatures(self) -> Words:
        """Temperatures of all motors, (motors,) uint16. A Tessel tells the last report, see
        set_temperature_periods.
        """
        return self._handle.temperatures()

    def temperature(self, motor: int) -> int:
        """Temperature of one motor."""
        return self._handle.temperature(self._motor(motor))

    # --- Touch -----------------------------------------------------------------------------------------

    def touch(self) -> Dict[str, Bytes]:
        """The cells of all tactile sensors by finger, (cells,) uint8 each: the whole arrays, or a summary of
        each where the link doesn't carry arrays. A Tessel's fingertips are 29 opaque bytes.
        """
        return {FINGERS[finger - 1]: cells for finger, cells in self._handle.touch()}

    # --- Streams ---------------------------------------------------------------------------------------

    def stream(self, rate: float = 50.0, values: Sequence[str] = ("positions",), buffer: int = 256) -> "Stream":
        """Readings of these values, `rate` times a second, by a thread of their own; an iterator of
        `korvane.Sample`. See `korvane.Stream`.
        """
        from .streaming import Stream

        return Stream(self, rate, values, buffer)

    # --- Checks ----------------------------------------------------------------------------------------

    def _bad(self, text: str) -> BadArgument:
        return BadArgument(f"{self._address}: {text}", hand=str(self._address))

    def _not_supported(self, text: str) -> NotSupported:
        return NotSupported(f"{self._address}: {text}", hand=str(self._address))

    def _motor(self, motor: int) -> int:
        if 1 <= motor <= self.motors:
            return motor
        raise self._bad(f"a {self._model.name} has the motors 1 to {self.motors}, and no {motor}")

    def _mode(self, mode: float) -> int:
        if mode in range(8):
            return int(mode)
        raise self._bad(f"a control mode is 0 to 7, and not {mode}")

    def _gesture(self, number: int) -> int:
        count = self._model.gestures
        if not count:
            raise self._not_supported(f"a {self._model.name} has no gestures")
        if 0 <= number < count:
            return number
        raise self._bad(f"a {self._model.name} has the gestures 0 to {count - 1}, and no {number}")

    def _need_joints(self) -> None:
        if not self._joints:
            raise self._not_supported(f"the joint angles of a {self._model.name} aren't known")

    def _pose(self, positions: Numbers) -> Floats:
        """As set_positions checks them, before anything moves."""
        pose = np.asarray(positions, dtype=float)
        if not self._model.has_motors:
            raise self._not_supported(f"a {self._model.name} has no motors")
        if pose.shape != (self.motors,):
            raise self._bad(f"a {self._model.name} has {self.motors} motors; {pose.size} positions were given")
        if not ((pose >= 0) & (pose <= self.position_max)).all():
            raise self._bad(f"positions of a {self._model.name} are 0 to {self.position_max}: {pose.tolist()}")
        return pose

    def _joint_named(self, name: str) -> Joint:
        for joint in self._joints:
            if joint.name == name:
                if joint.can_be_commanded:
                    return joint
                raise self._bad(f"{name} can't be commanded")
        names = ", ".join(joint.name for joint in self._joints if joint.can_be_commanded)
        raise self._bad(f"a {self._model.name} has no joint {name}; there are {names}")

    def _within(self, joint: Joint, angle: float) -> float:
        if joint.lower <= angle <= joint.upper:
            return float(angle)
        raise self._bad(f"{angle} rad is beyond the limits of {joint.name}, {joint.lower} to {joint.upper}")

    def _active(self, angles: Numbers) -> List[float]:
        self._need_joints()
        joints = self.active_joints
        if len(angles) != len(joints):
            raise self._bad(f"a {self._model.name} has {len(joints)} active joints; {len(angles)} angles were given")
        return [self._within(joint, angle) for joint, angle in zip(joints, angles)]

    def _to_positions(self, angles: Numbers, held: bool = False) -> Ints:
        within = self._handle.held_angles(angles)
        if not held and not np.allclose(within, angles, atol=1e-9, rtol=0):
            raise self._bad(
                "these angles don't go together: a knuckle's range is narrower where the finger stands sideways"
            )
        positions: Ints = np.clip(self._handle.to_positions(within), 0, self.position_max).astype(np.int16)
        return positions


class _SingleAxisTouch(Hand):
    """Hands with tactile sensors of one axis."""

    def touch_array(self, finger: str) -> Bytes:
        """The whole array of one sensor, (cells,) uint8, as the hand sent it. HCAN adapters cut long ones."""
        return self._handle.touch_array(_finger(self, finger))


def _finger(hand: Hand, name: str) -> int:
    if name in FINGERS:
        return FINGERS.index(name) + 1
    raise hand._bad(f"there is no finger {name}; there are {', '.join(FINGERS)}")


class Brisa(_SingleAxisTouch):
    """The hand with ten motors, seven one-axis tactile sensors, joint angles and 17 gestures.

    Motor n moves active joint n - 1. Fingers are straight at 4096 and closed at 0; `korvane_brisa.h` tells
    more.
    """

    model_name = "brisa"

    def touch_summary(self, finger: str) -> Bytes:
        """The summary of one sensor: (16,) uint8, (25,) of palm and dorsum."""
        return self._handle.touch_summary(_finger(self, finger))


class Tessel(Hand):
    """The hand with twelve motors, five three-axis fingertip sensors, joint angles and 4 gestures.

    Fingers are straight at 2000. Currents and temperatures come in reports, which are off at first.
    """

    model_name = "tessel"

    def fingertip(self, finger: str) -> Bytes:
        """The sensor of one fingertip, thumb to little: (29,) uint8, which are opaque to the host."""
        return self._handle.fingertip(_finger(self, finger))

    def set_error_periods(self, periods: Numbers) -> None:
        """How often the hand reports the errors of each motor, in its own unit; 0: never."""
        self._handle.set_error_periods(periods)

    def set_error_period(self, motor: int, period: int) -> None:
        """How often the hand reports the errors of one motor."""
        self._handle.set_error_period(self._motor(motor), period)

    def set_temperature_periods(self, periods: Numbers) -> None:
        """How often the hand reports the temperature of each motor, in its own unit; 0: never."""
        self._handle.set_temperature_periods(periods)

    def set_temperature_period(self, motor: int, period: int) -> None:
        """How often the hand reports the temperature of one motor."""
        self._handle.set_temperature_period(self._motor(motor), period)

    def set_current_periods(self, periods: Numbers) -> None:
        """How often the hand reports the current of each motor, in its own unit; 0: never."""
        self._handle.set_current_periods(periods)

    def set_current_period(self, motor: int, period: int) -> None:
        """How often the hand reports the current of one motor."""
        self._handle.set_current_period(self._motor(motor), period)

    def await_reports(self, timeout: float = 2.0) -> None:
        """Waits for the first report of currents and temperatures, once their periods are set."""
        end = time.monotonic() + timeout
        for read in (self.currents, self.temperatures):
            while True:
                try:
                    read()
                    break
                except (NoReply, NotSupported):
                    if time.monotonic() > end:
                        raise
                    time.sleep(0.005)


class Quill(_SingleAxisTouch):
    """The data-collection hand: ten joint readings and six one-axis tactile sensors, and no motors."""

    model_name = "quill"

    def calibrate_min(self, joint: Optional[int] = None) -> None:
        """Tells the device that a joint, 1 to 10, or every one stands at its lower end now."""
        if joint is None:
            self._handle.calibrate_min()
        else:
            self._handle.calibrate_joint_min(joint)

    def calibrate_max(self, joint: Optional[int] = None) -> None:
        """The same for the upper end."""
        if joint is None:
            self._handle.calibrate_max()
        else:
            self._handle.calibrate_joint_max(joint)


class Lumen(Hand):
    """The small hand with four motors, without joint angles, gestures and touch."""

    model_name = "lumen"


class Vanta(Hand):
    """The hand with twenty motors, without joint angles, gestures and touch."""

    model_name = "vanta"


if TYPE_CHECKING:
    from typing import TypeVar

    _AnyHand = TypeVar("_AnyHand", bound=Hand)

CLASSES = {cls.model_name: cls for cls in (Brisa, Tessel, Quill, Lumen, Vanta)}
