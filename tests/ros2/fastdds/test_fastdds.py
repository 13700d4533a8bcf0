"""korvane-ros2 against Fast DDS, set up as ROS 2's default middleware sets it up. For scripts/test-ros2-fastdds."""

import json

import pytest

HAND = "/korvane/right"
STATES = f"{HAND}/joint_states"
COMMANDS = f"{HAND}/joint_commands"
JOINT = "right_index_flexion"


def reaches(angle):
    return lambda message: abs(message["positions"][message["names"].index(JOINT)] - angle) < 0.02


def start_bridge(setup, *options):
    return setup.bridge("-H", f"serial:{setup.port}:brisa", "--allow-commands", *options)


def start_peer(setup, *topics, reliability="reliable"):
    peer = setup.peer(*topics, "/diagnostics=diagnostics")
    peer.writer(COMMANDS, reliability=reliability)
    return peer


@pytest.mark.parametrize("reliability", ["reliable", "best_effort"])
@pytest.mark.parametrize("first", ["bridge", "peer"])
def test_both_directions_whoever_starts_first(setup, first, reliability):
    mark, options = ("", ()) if reliability == "reliable" else ("-", ("--best-effort-commands",))
    setup.serial_sim()
    if first == "bridge":
        start_bridge(setup, *options)
    peer = start_peer(setup, f"{mark}{STATES}=joints", reliability=reliability)
    if first == "peer":
        start_bridge(setup, *options)
    peer.matched(COMMANDS)
    message = peer.message(STATES)
    assert len(message["names"]) == len(message["positions"]) == 16
    assert message["velocities"] == 0 and message["frame"] == "right_hand_base" and message["stamp"] > 0
    assert not reaches(0.5)(message)
    peer.order("joints", "w", 0, f"{JOINT}=0.5")
    peer.order("repeat", "w", 50)
    peer.message(STATES, reaches(0.5))
    assert peer.status(lambda s: s["message"] == "commanded")["commander"] != ""


def test_a_command_that_was_written_long_ago_is_dropped(setup):
    setup.serial_sim()
    start_bridge(setup)
    peer = start_peer(setup)
    peer.matched(COMMANDS)
    peer.order("joints", "w", 5000, f"{JOINT}=0.5")
    assert peer.status(lambda s: s["refused_old"] == "1")["accepted"] == "0"


def test_a_best_effort_publisher_without_the_option_is_a_mismatch_at_both_ends(setup):
    setup.serial_sim()
    start_bridge(setup)
    peer = start_peer(setup, reliability="best_effort")
    peer.wait(lambda line: '"mismatch"' in line and COMMANDS in line)
    assert peer.status(lambda s: int(s["qos_mismatches"]) > 0)["level"] == 1


@pytest.mark.parametrize("release, nodes", [("humble", "humble_nodes"), ("jazzy", "nodes")])
def test_node_and_types_are_announced_as_each_release_expects(setup, release, nodes):
    setup.serial_sim()
    start_bridge(setup, "--ros", release)
    peer = setup.peer(f"ros_discovery_info={nodes}")
    peer.wait(lambda line: json.loads(line).get("participant") == "enclave=/;")
    states = json.loads(peer.wait(lambda line: json.loads(line).get("announced") == f"rt{STATES}"))
    assert states["type"] == "sensor_msgs::msg::dds_::JointState_"
    assert states["user_data"].startswith("typehash=RIHS01_")
    assert peer.message("ros_discovery_info", fresh=False)["nodes"][0] == f"{HAND}/bridge"
