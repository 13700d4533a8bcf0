"""What a robot sees of korvane-ros2."""

import os
import signal
import subprocess

import pytest
from conftest import BUILD, LIMIT

HAND = "/korvane/right"
STATES = f"{HAND}/joint_states"
MOTORS = f"{HAND}/motor_positions"
COMMANDS = f"{HAND}/joint_commands"
LIMITED = ("--rate", "100")


def position(message, joint):
    return message["positions"][message["names"].index(joint)]


def reaches(joint, angle):
    return lambda message: abs(position(message, joint) - angle) < 0.02


def refusals(status):
    """How many commands were refused, by the reason."""
    return {key[8:]: int(value) for key, value in status.items()
            if key.startswith("refused_") and key != "refused_commander"}


@pytest.fixture
def commanded(setup):
    """A hand on an adapter, a bridge that takes commands, and a peer that has found it."""
    setup.adapters("--hand", "brisa:1")
    setup.bridge("-H", "zlg:0.0:brisa:1", "--allow-commands", *LIMITED)
    peer = setup.peer(f"{STATES}=joints", f"{MOTORS}=array", "/diagnostics=diagnostics")
    peer.writer(COMMANDS)
    peer.matched(COMMANDS)
    peer.message(STATES)
    return peer


@pytest.mark.parametrize("reliability", ["reliable", "best_effort"])
@pytest.mark.parametrize("first", ["bridge", "peer"])
def test_both_directions_whoever_starts_first(setup, first, reliability):
    setup.adapters("--hand", "brisa:1")
    mark = "-" if reliability == "best_effort" else ""
    options = ["-H", "hcan:0.0:brisa:1", "--allow-commands"]
    if mark:
        options.append("--best-effort-commands")
    if first == "bridge":
        setup.bridge(*options)
    peer = setup.peer(f"{mark}{STATES}=joints", "/diagnostics=diagnostics")
    peer.writer(COMMANDS, reliability=reliability)
    if first == "peer":
        setup.bridge(*options)
    peer.matched(COMMANDS)
    message = peer.message(STATES)
    assert len(message["names"]) == len(message["positions"]) == 16
    assert message["velocities"] == 0 and message["frame"] == "right_hand_base" and message["stamp"] > 0
    peer.order("joints", "w", 0, "right_index_flexion=0.5")
    peer.order("repeat", "w", 50)
    peer.message(STATES, reaches("right_index_flexion", 0.5))


def test_a_peer_that_is_stopped_ends_motion_and_goes_on(commanded):
    commanded.order("joints", "w", 0, "right_index_flexion=0.5")
    commanded.order("repeat", "w", 100)
    before = int(commanded.status(lambda s: s["message"] == "commanded")["accepted"])
    commanded.send(signal.SIGSTOP)
    # Nothing else can be waited for: who would hear of it is stopped.
    with commanded.changed:
        commanded.changed.wait(5)
    commanded.send(signal.SIGCONT)
    status = commanded.status(lambda s: s["message"] == "commanded" and int(s["accepted"]) > before + 100)
    assert status["state"] == "armed"
    commanded.order("stop", "w")
    silent = commanded.status(lambda s: s["level"] == 3)
    assert silent["message"] == "no commands any more; the hand holds" and silent["commander"] == ""


def test_a_hostile_writer_moves_nothing_and_is_counted(commanded):
    before = commanded.message(MOTORS)["data"]
    orders = [
        ("odd w 2 1 0", "size"), ("odd w 0 0 0", "size"), ("odd w 1 1 1", "velocity_or_effort"),
        ("huge w 10000", "size"), ("huge w 64", "repeated_name"),
        ("joints w 0 right_index_flexion=nan", "not_finite"),
        ("joints w 0 right_index_flexion=inf", "not_finite"),
        ("joints w 0 index_flexion=0.5", "unknown_name"),
        ("joints w 0 right_index_flexion=0.5 right_index_flexion=0.5", "repeated_name"),
        ("joints w 0 right_index_flexion=9", "beyond_limits"),
        ("joints w 5000 right_index_flexion=0.5", "old"),
        ("joints w -5000 right_index_flexion=0.5", "ahead"),
    ]
    seen = {}
    for order, reason in orders:
        for _ in range(20):  # what a busy machine makes too old for any other reason is sent again
            commanded.order(order)
            # One at a time: of two the newer would count.
            now = refusals(commanded.status(lambda s: sum(refusals(s).values()) > sum(seen.values())))
            before_it, seen = seen, now
            if now[reason] > before_it.get(reason, 0):
                break
            assert now["old"] > before_it.get("old", 0), f"{order}: {now}"
        else:
            pytest.fail(f"{order} is always too old")
    status = commanded.status()
    assert status["accepted"] == "0" and status["state"] == "disarmed"
    assert commanded.message(MOTORS)["data"] == before


def test_one_commander_whatever_others_write(commanded):
    commanded.writer(COMMANDS, name="other")
    commanded.order("joints", "w", 0, "right_index_flexion=0.5")
    commanded.order("repeat", "w", 50)
    commanded.message(STATES, reaches("right_index_flexion", 0.5))
    commanded.order("joints", "other", 0, "right_index_flexion=0.1")
    commanded.order("repeat", "other", 1000)
    status = commanded.status(lambda s: int(s["refused_other_commander"]) > 100)
    assert status["refused_commander"] not in ("", status["commander"])
    assert reaches("right_index_flexion", 0.5)(commanded.message(STATES))
    commanded.order("stop", "w")
    commanded.message(STATES, reaches("right_index_flexion", 0.1))


def test_motors_walk_no_faster_than_they_may(setup):
    setup.adapters("--hand", "vanta:1")
    setup.bridge("-H", "zlg:0.0:vanta", "--allow-commands", "--max-motor-speed", "400", *LIMITED)
    peer = setup.peer(f"{MOTORS}=array", f"{HAND}/motor_currents=array")
    topic = f"{HAND}/motor_commands"
    peer.writer(topic, "array")
    peer.matched(topic)
    start = peer.message(MOTORS)["data"][0]
    goal = 400 if start < 2000 else 3600
    peer.order("motors", "w", 0, *[goal] * 20)
    peer.order("repeat", "w", 50)
    way = [peer.message(MOTORS, lambda m: abs(m["data"][0] - goal) <= abs(goal - start) / 2)["data"][0]]
    peer.message(MOTORS, lambda m: abs(m["data"][0] - goal) < 2)
    assert abs(way[0] - goal) > 100, "it was on its way"
    assert len(peer.message(f"{HAND}/motor_currents")["data"]) == 20


def test_two_hands_are_two_nodes(setup):
    setup.adapters("--hand", "brisa:1@0.0", "--hand", "tessel:2@0.1")
    setup.bridge("-H", "zlg:0.0:brisa:1", "-H", "zlg:0.1:tessel:2?side=left=/arm/hand", "--allow-commands")
    left = "/arm/hand/joint_states"
    peer = setup.peer(f"{STATES}=joints", f"{left}=joints", "/diagnostics=diagnostics", "ros_discovery_info=nodes",
                      f"{HAND}/tactile/index=touch")
    peer.writer("/arm/hand/joint_commands")
    peer.matched("/arm/hand/joint_commands")
    nodes = peer.message("ros_discovery_info", fresh=False)["nodes"]
    assert nodes == [f"{HAND}/bridge", 2, 11, "/arm/hand/bridge", 2, 8]
    assert len(peer.message(f"{HAND}/tactile/index", fresh=False)["data"]) > 0
    right = position(peer.message(STATES), "right_index_flexion")
    before = peer.message(left)
    joint = next(name for name in before["names"] if "flexion" in name)
    peer.order("joints", "w", 0, f"{joint}=0.4")
    peer.order("repeat", "w", 50)
    after = peer.message(left, reaches(joint, 0.4))
    assert position(after, "left_thumb_1") == pytest.approx(position(before, "left_thumb_1"), abs=0.01)
    assert reaches("right_index_flexion", right)(peer.message(STATES))
    assert peer.status(name="/arm/hand")["accepted"] != "0" and peer.status(name=HAND)["accepted"] == "0"


def test_models_tell_what_they_have(setup):
    sizes = {"quill:3": 10, "lumen:4": 4, "tessel:2": 12}
    setup.adapters(*[f"--hand={hand}" for hand in sizes])
    setup.bridge(*[word for hand in sizes for word in ("-H", f"zlg:0.0:{hand}=/{hand[:5]}")])
    peer = setup.peer("/diagnostics=diagnostics", "ros_discovery_info=nodes",
                      *[f"/{hand[:5]}/motor_{what}=array" for hand in sizes for what in ("positions", "currents")])
    for hand, size in sizes.items():
        assert len(peer.message(f"/{hand[:5]}/motor_positions")["data"]) == size
        status = peer.status(name=f"/{hand[:5]}")
        assert (status["level"], status["message"], status["failed_requests"]) == (0, "reading", "0")
    assert len(peer.message("/lumen/motor_currents")["data"]) == 4
    assert peer.count("/quill/motor_currents") == 0
    nodes = peer.message("ros_discovery_info", fresh=False)["nodes"]
    assert nodes == ["/quill/bridge", 0, 8, "/lumen/bridge", 1, 2, "/tesse/bridge", 2, 8]


def test_a_hand_that_goes_is_an_error_and_comes_back_disarmed(setup):
    sim = setup.serial_sim()
    bridge = setup.bridge("-H", f"serial:{setup.port}:brisa", "--allow-commands")
    peer = setup.peer(f"{STATES}=joints", "/diagnostics=diagnostics")
    peer.writer(COMMANDS)
    peer.matched(COMMANDS)
    peer.order("joints", "w", 0, "right_index_flexion=1.0")
    peer.order("repeat", "w", 50)
    peer.message(STATES, reaches("right_index_flexion", 1.0))
    setup.kill(sim)
    gone = peer.status(lambda s: s["link"] == "gone")
    assert gone["level"] == 2 and gone["state"] == "disarmed by a fault"
    # What was told before may still be on its way, behind what says that the hand has gone.
    told = [-1, peer.count(STATES)]
    while told[-1] != told[-2] and len(told) < 10:
        peer.status()
        told.append(peer.count(STATES))
    assert told[-1] == told[-2], "what isn't read isn't told"
    setup.serial_sim()
    back = peer.status(lambda s: s["link"] == "open" and int(s["refused_far"]) > 3)
    assert back["level"] == 2 and back["reopened"] == "1"
    assert not reaches("right_index_flexion", 1.0)(peer.message(STATES))
    angle = position(peer.message(STATES), "right_index_flexion")
    peer.order("joints", "w", 0, f"right_index_flexion={max(angle, 0):.2f}")
    peer.status(lambda s: s["state"] == "armed")
    assert bridge.end() == (0, bridge.errors)


def test_an_error_of_a_motor_ends_motion_until_it_is_gone(commanded):
    angle = max(position(commanded.message(STATES), "right_index_flexion"), 0)
    commanded.order("joints", "w", 0, f"right_index_flexion={angle:.2f}")
    commanded.order("repeat", "w", 50)
    before = int(commanded.status(lambda s: s["state"] == "armed")["refused_fault"])
    commanded.order("drive", "hcan:0.0:brisa:1", 3, 500)  # into its stop
    bad = commanded.status(lambda s: s["errors"])
    assert (bad["level"], bad["message"], bad["errors"]) == (2, "motor 3 stalled", "motor 3 stalled")
    refused = commanded.status(lambda s: int(s["refused_fault"]) > before)
    assert refused["state"] == "disarmed by a fault"
    commanded.message(STATES)
    commanded.order("drive", "hcan:0.0:brisa:1", 3, 0)
    good = commanded.status(lambda s: s["state"] == "armed")
    assert good["errors"] == "" and good["message"] != "motor 3 stalled"


def test_a_silent_hand_tells_nothing(setup):
    setup.adapters("--hand", "brisa:1", "--silent-after", "300")
    setup.bridge("-H", "zlg:0.0:brisa:1")
    peer = setup.peer(f"{STATES}=joints", "/diagnostics=diagnostics")
    readings = peer.status(lambda s: s["level"] == 2)["readings"]
    states = peer.count(STATES)
    assert peer.status(lambda s: s["level"] == 2)["readings"] == readings
    assert peer.count(STATES) == states


def test_commands_that_are_not_allowed_and_qualities_that_do_not_match(setup):
    setup.adapters("--hand", "brisa:1")
    setup.bridge("-H", "zlg:0.0:brisa:1")
    peer = setup.peer(f"{STATES}=joints", "/diagnostics=diagnostics")
    peer.writer(COMMANDS)
    peer.matched(COMMANDS)
    peer.order("joints", "w", 0, "right_index_flexion=0.5")
    status = peer.status(lambda s: s["refused_not_allowed"] == "1")
    assert status["state"] == "commands aren't allowed" and status["level"] == 0
    peer.writer(COMMANDS, reliability="best_effort", name="careless")
    assert peer.status(lambda s: s["qos_mismatches"] == "1")["level"] == 1


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_it_ends_when_it_is_told(setup, number):
    setup.adapters("--hand", "brisa:1")
    bridge = setup.bridge("-H", "zlg:0.0:brisa:1")
    assert bridge.end(number)[0] == 0


@pytest.mark.parametrize("arguments, status, text", [
    (["-H", "nowhere:brisa:1"], 3, "nowhere"),
    (["-H", "zlg:0.0:brisa:9"], 4, ""),
    (["-H", "zlg:0.0:tessel:1"], 5, ""),
    (["-H", "zlg:0.0"], 6, ""),
    (["-H", "zlg:0.0:brisa:1", "-H", "zlg:0.0:lumen:2"], 2, "two hands have the namespace /korvane/right"),
    (["-H", "zlg:0.0:brisa:1", "--rate", "101"], 2, "--rate"),
    (["-H", "zlg:0.0:brisa:1", "--max-speed", "nan"], 2, "nan is no finite number"),
    (["-H", "zlg:0.0:brisa:1", "--max-motor-speed", "inf"], 2, "inf is no finite number"),
    (["-H", "zlg:0.0:brisa:1", "--timeout", "0x20"], 2, "0x20 is no whole number"),
    (["-H", "zlg:0.0:brisa:1=/9"], 2, "no namespace"),
    ([], 2, "which hand?"),
])
def test_what_cannot_be_done_ends_with_the_status_of_the_tool(setup, arguments, status, text):
    setup.adapters("--hand", "brisa:1", "--hand", "lumen:2")
    bridge = setup.bridge(*arguments, waits=False)
    got = bridge.process.wait(60), bridge.end()[1]
    assert got[0] == status and text in got[1], got


def test_list_joints_asks_nobody(setup):
    bridge = setup.bridge("-H", "can0:tessel?side=left", "--list-joints", waits=False)
    assert bridge.end(0)[0] == 0
    rows = {line.split()[0]: line.split(maxsplit=3)[3].strip() for line in bridge.lines}
    assert len(rows) == 19 and rows["left_index_flexion"] == "commandable"
    assert rows["left_thumb_1"] == "can't be commanded" and "coupled" in rows.values()


@pytest.mark.parametrize("arguments", [["--help"], ["--version"], ["-H", "can0:brisa", "--list-joints"]])
def test_nothing_is_believed_that_could_not_be_written(arguments):
    with open("/dev/full", "w") as full:
        done = subprocess.run([BUILD / "bin/korvane-ros2", *arguments], stdout=full, stderr=subprocess.PIPE, text=True)
    assert done.returncode == 1 and "No space left" in done.stderr


def test_a_hand_is_served_when_nobody_reads_the_output_any_more(setup):
    sim = setup.serial_sim()
    reader, writer = os.pipe()
    os.close(reader)
    command = setup.command("-H", f"serial:{setup.port}:brisa")
    bridge = subprocess.Popen(command, env=setup.env, stdout=writer, stderr=writer)
    os.close(writer)
    try:
        peer = setup.peer("/diagnostics=diagnostics")
        peer.status(lambda s: s["link"] == "open")
        setup.kill(sim)  # which the library tells on the standard error stream
        peer.status(lambda s: s["link"] == "gone")
        bridge.terminate()
        assert bridge.wait(LIMIT) == 1
    finally:
        bridge.kill()
        bridge.wait()
