"""Every model on every link that a machine without a CAN bus has, by the names of Python."""

import logging
import math
import threading
import time

import conftest
import korvane
import numpy as np
import pytest
from korvane import service
from simulator import HANDS, MODELS

READINGS = {  # dtype
    "positions": np.int16, "velocities": np.int16, "currents": np.int16, "temperatures": np.uint16,
    "errors": np.uint16, "control_modes": np.uint8, "current_thresholds": np.int16,
}
#: What a model doesn't have, or not on that link.
MISSING = {
    ("serial", "brisa"): {"control_modes", "current_thresholds"},
    "quill": {"velocities", "currents", "temperatures", "errors", "control_modes", "current_thresholds"},
}


@pytest.fixture(params=HANDS, ids="-".join)
def hand(request, sim):
    link, model = request.param
    with korvane.open(sim.address(link, model)) as opened:
        opened.reply_timeout_ms = 1000
        opened.link = link
        yield opened


def name_of(hand):
    return hand.model.name


def test_what_it_is(hand):
    assert type(hand).__name__.lower() == name_of(hand) == hand.identify() == hand.address.model
    assert (hand.info().active_dof > 0) == hand.model.has_motors and hand.info().firmware == "1.0.0"
    assert hand.id == hand.asked_id() == MODELS[name_of(hand)][0]
    assert repr(hand) == f"<korvane.{type(hand).__name__} {hand.address.text}>"
    assert hand.statistics.requests >= hand.statistics.replies > 0


def test_readings_are_arrays(hand):
    if isinstance(hand, korvane.Tessel):
        with pytest.raises(korvane.NoReply):
            hand.currents()
        hand.set_temperature_periods([5] * 12)
        hand.set_current_periods(np.full(12, 5))
        hand.await_reports(60)
    missing = MISSING.get(name_of(hand), set()) | MISSING.get((hand.link, name_of(hand)), set())
    for reading, dtype in READINGS.items():
        if reading in missing:
            with pytest.raises(korvane.NotSupported):
                getattr(hand, reading)()
        else:
            values = getattr(hand, reading)()
            assert (values.shape, values.dtype) == ((hand.motors,), dtype), reading
    if isinstance(hand, korvane.Tessel):
        hand.set_temperature_periods([0] * 12)
        hand.set_current_periods([0] * 12)


def test_moving(hand):
    if not hand.model.has_motors:
        for call in (
            lambda: hand.set_positions([0] * 10), lambda: hand.move([0] * 10), lambda: hand.set_position(1, 0),
        ):
            with pytest.raises(korvane.NotSupported):
                call()
        return
    aim = [hand.position_max // 2 + motor for motor in range(hand.motors)]
    for sequence in (aim, tuple(aim), np.array(aim), np.array(aim, dtype=np.float32), range(aim[0], aim[0] + len(aim))):
        assert hand.set_positions(sequence).shape == (hand.motors,)
    hand.wait_until_still(60)
    assert hand.positions().tolist() == aim
    hand.move(np.array(aim) - 100.4, seconds=0.05)
    hand.wait_until_still(60)
    assert hand.positions().tolist() == [value - 100 for value in aim]
    hand.set_position(hand.motors, aim[-1])
    hand.wait_until_still(60)
    assert hand.positions()[-1] == aim[-1]


def test_modes_and_targets(hand):
    if hand.link == "serial" or not hand.model.has_motors:
        pytest.skip("doesn't tell its modes")
    hand.set_control_modes([korvane.ControlMode.POSITION_CURRENT] * hand.motors)
    hand.set_control_mode(2, 6)
    hand.set_current_thresholds(range(900, 900 + hand.motors))
    hand.set_current_threshold(1, 850)
    hand.set_velocity(1, 4000)
    assert hand.control_mode(2) is korvane.ControlMode.POSITION_VELOCITY_CURRENT
    assert hand.control_modes().tolist() == [4, 6] + [4] * (hand.motors - 2)
    assert hand.current_thresholds().tolist() == [850] + list(range(901, 900 + hand.motors))
    hand.set_targets(4, [korvane.Target(1, position=500, current=800), korvane.Target(2, 600, None, 800)])
    hand.wait_until_still(60)
    assert hand.positions()[:2].tolist() == [500, 600]


def test_joint_angles(hand):
    if not hand.joints:
        for call in (hand.joint_angles, hand.active_joint_angles, lambda: hand.set_joint_angles({"thumb_1": 0})):
            with pytest.raises(korvane.NotSupported, match="joint angles"):
                call()
        return
    hand.gesture(0)
    hand.wait_until_still(60)
    before = hand.positions()
    echo = hand.set_joint_angles({"middle_flexion": 0.5})
    assert (echo != before).sum() <= 4
    hand.wait_until_still(60)
    assert hand.joint_angles().shape == (len(hand.joints),)
    active = hand.active_joint_angles()
    assert active.shape == (len(hand.active_joints),) and active.dtype == np.float64
    flexion = next(joint for joint in hand.joints if joint.name == "middle_flexion")
    assert active[flexion.active_index] == pytest.approx(0.5, abs=0.01)
    within = np.clip(active, *np.array([joint[1:3] for joint in hand.active_joints]).T)
    assert np.allclose(hand.complete_angles(within), hand.joint_angles(), atol=0.02)


def test_touch(hand):
    fingers = {"brisa": 7, "tessel": 5, "quill": 6}.get(name_of(hand))
    if fingers is None:
        with pytest.raises(korvane.NotSupported, match="touch"):
            hand.touch()
        return
    touch = hand.touch()
    cut = hand.link == "hcan" and name_of(hand) == "quill"
    assert list(touch) == [finger for finger in korvane.FINGERS[:fingers] if not cut or finger in touch]
    assert all(cells.dtype == np.uint8 and cells.size >= 16 for cells in touch.values())
    one = {"brisa": "touch_summary", "tessel": "fingertip", "quill": "touch_array"}[name_of(hand)]
    assert getattr(hand, one)("thumb").size >= 16
    with pytest.raises(korvane.BadArgument):
        getattr(hand, one)("toe")


def recording(times, positions):
    """Of a Brisa whose motors all stand alike."""
    table = np.repeat(np.array(positions, float)[:, None], 10, axis=1)
    return korvane.Recording({"model": "brisa"}, np.array(times, float), {"positions": table}, {})


BAD = {
    "too few positions": lambda hand: hand.set_positions([0] * 9),
    "positions beyond the scale": lambda hand: hand.set_positions([4097] + [0] * 9),
    "positions that are none": lambda hand: hand.set_positions([math.nan] * 10),
    "a motor that isn't there": lambda hand: hand.position(11),
    "motor 0": lambda hand: hand.set_position(0, 1),
    "a position beyond the scale": lambda hand: hand.set_position(1, -1),
    "a velocity beyond 16 bits": lambda hand: hand.set_velocity(1, 70000),
    "too many velocities": lambda hand: hand.set_velocities([1] * 11),
    "a gesture that isn't there": lambda hand: hand.gesture(17),
    "two targets of a move": lambda hand: hand.move([0] * 10, gesture=1),
    "a move through beyond": lambda hand: hand.move([5000] * 10),
    "an angle beyond the limits": lambda hand: hand.set_joint_angles({"index_flexion": 3}),
    "an angle that is none": lambda hand: hand.set_joint_angles({"index_flexion": math.nan}),
    "a joint that isn't there": lambda hand: hand.set_joint_angles({"toe": 0}),
    "a coupled joint": lambda hand: hand.set_joint_angles({hand.joints[-1].name: 0, "index_distal": 0}),
    "too few angles": lambda hand: hand.set_joint_angles([0] * 9),
    "a mode that isn't there": lambda hand: hand.set_targets(3, [korvane.Target(1, 0, 0, 0)]),
    "a target without its current": lambda hand: hand.set_targets(4, [korvane.Target(99, 0)]),
    "an id that isn't one": lambda hand: hand.set_id(128),
    "a file that isn't there": lambda hand: hand.update("/nowhere/firmware"),
    "a file that is none": lambda hand: hand.update("/dev/null"),
    "a rate that is none": lambda hand: hand.stream(0),
    "a value that is none": lambda hand: hand.stream(1, ["happiness"]),
    "a speed that is none": lambda hand: hand.play(recording([0], [0]), speed=0),
    "a speed without an end": lambda hand: hand.play(recording([0], [0]), speed=math.inf),
    "a recording with a gap": lambda hand: hand.play(recording([0, 1], [100, math.nan])),
    "a recording that goes back": lambda hand: hand.play(recording([1, 0], [100, 100])),
}


@pytest.mark.parametrize("case", BAD)
def test_bad_arguments_move_nothing(case, brisa):
    before, requests = brisa.positions(), brisa.statistics.requests
    with pytest.raises(korvane.BadArgument) as raised:
        BAD[case](brisa)
    assert isinstance(raised.value, ValueError) and str(brisa.address) in str(raised.value)
    assert brisa.statistics.requests - requests <= 1  # where the hand stands
    assert brisa.positions().tolist() == before.tolist()


@pytest.mark.parametrize("given", ["1234567890", [None] * 10, 7, [[0] * 10]])
def test_what_is_no_sequence_of_numbers(given, brisa):
    with pytest.raises(TypeError):
        brisa.set_positions(given)


NOBODY = {
    "text that is no address": ("can0:toe:1", korvane.BadArgument),
    "a port that isn't there": ("serial:/nowhere", korvane.LinkLost),
    "an interface that isn't there": ("nowhere0:brisa:1", korvane.LinkLost),
    "an id that nobody has": ("zlg:0.0:brisa:99", korvane.NoReply),
    "another model": ("zlg:0.0:vanta:1", korvane.Refused),
    "several hands": ("zlg:0.0", korvane.Refused),
    "a model without a serial link": ("serial:/nowhere:vanta", korvane.NotSupported),
}


@pytest.mark.parametrize("case", NOBODY)
def test_who_is_not_there(case, sim):
    address, error = NOBODY[case]
    with pytest.raises(error) as raised:
        korvane.open(address)
    assert type(raised.value) is error and address in str(raised.value)
    if error is korvane.LinkLost:
        assert raised.value.advice


def test_the_class_that_is_wanted(sim):
    with pytest.raises(korvane.Refused, match="a brisa answers, and no Vanta"):
        korvane.open(sim.address("zlg"), korvane.Vanta)
    with korvane.open(korvane.Address.parse(sim.address("zlg") + "?side=left"), korvane.Brisa) as hand:
        assert hand.side == "left" and hand.joints[0].lower < -1


def test_finding(sim):
    found = korvane.find(places=["zlg:0.0", f"serial:{sim.port}"], ids=range(1, 8))
    assert [hand.address.model for hand in found] == [*MODELS, "brisa"]
    assert all(hand.info.firmware == "1.0.0" for hand in found)
    assert [type(error) for error in korvane.find(places=["nowhere0"]).not_asked] == [korvane.LinkLost]
    with pytest.raises(korvane.BadArgument):
        korvane.find(["pigeon"])


def test_failures_say_what_failed(silent, caplog):
    caplog.set_level(logging.DEBUG, "korvane")
    silent.reply_timeout_ms = 10
    with pytest.raises(korvane.NoReply) as raised:
        silent.positions()
    error = raised.value
    assert (error.operation, error.hand) == ("GetAllJointMotorPosi", str(silent.address))
    assert str(error).startswith(f"{silent.address}: GetAllJointMotorPosi: ")
    while not caplog.records:  # a thread of its own writes them
        time.sleep(0.01)
    assert caplog.records[-1].name == "korvane"


def test_a_hand_that_goes(brisa):
    brisa.simulator.process.kill()
    brisa.simulator.process.wait()
    with pytest.raises(korvane.KorvaneError):
        brisa.positions()
    with pytest.raises(korvane.LinkLost, match="the link has gone"):
        for _ in range(1000):
            try:
                brisa.positions()
            except korvane.NoReply:
                pass
    with pytest.raises(korvane.LinkLost):
        brisa.move([0] * 10, seconds=30)


def test_other_threads_run_while_a_call_waits(silent):
    """Counts in Python while another thread waits for a reply that doesn't come: if that kept the interpreter
    to itself, this thread would stand still."""
    begun = threading.Event()

    def call():
        begun.set()
        with pytest.raises(korvane.NoReply):
            silent.positions()

    thread = threading.Thread(target=call)
    thread.start()
    begun.wait()
    turns = 0
    while thread.is_alive():
        turns += 1
        time.sleep(0)
    thread.join()
    assert turns > 100


def test_two_threads_share_a_hand(brisa):
    brisa.reply_timeout_ms = 1000
    shapes = []

    def call():
        for _ in range(100):
            shapes.append(brisa.positions().shape)

    threads = [threading.Thread(target=call) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert shapes == [(10,)] * 400


@pytest.mark.parametrize("link", ["serial", "zlg", "hcan"])
def test_service(link, tmp_path):
    simulator = conftest.Simulator(tmp_path, "--hand=brisa:1")
    try:
        with service.open(simulator.address(link)) as face:
            face.hand.reply_timeout_ms = 1000
            assert face.hand.positions().shape == face.all_axis_pos().shape == (10,)
            face.set_axis_max_pos(3, 4000)
            assert face.axis_limit_pos().upper[2] == 4000
            assert face.all_axis_velocity().dtype == np.int16
            assert face.set_all_axis_pos([2000] * 10).pos.shape == (10,)
            assert face.fw_version().firmware == "1.0.0" and len(face.product_serial_number()) == 19
            for call in (
                lambda: face.set_axis_max_pos(3, 5000), lambda: face.set_axis_homing(99, 0),
                lambda: face.set_power_state(300),
            ):
                with pytest.raises(korvane.BadArgument):
                    call()
            if link == "serial":
                with pytest.raises(korvane.NotSupported):
                    face.finger_tactile_force()
            face.close()
            with pytest.raises(korvane.LinkLost):
                face.power_state()
    finally:
        simulator.stop()


@pytest.mark.parametrize("model, error", [("tessel", korvane.NotSupported), ("brisa", korvane.Refused)])
def test_no_service(sim, model, error):
    """A Tessel has none; and a Brisa and a Lumen on one bus would both answer."""
    if model == "tessel":
        with pytest.raises(error):
            service.open("serial:/nowhere:tessel")
    else:
        with pytest.raises(error, match="leave only one"):
            service.open(sim.address("zlg", model))


def test_simulated_models():
    with pytest.raises(korvane.NotSupported):
        korvane.simulated("tessel")
    with pytest.raises(korvane.KorvaneError, match="korvane-sim ended at once"):
        korvane.simulated(options=["--nonsense"])
