"""doctor: from the plug upwards, on stand-ins, a pseudo-terminal, trees that look like /sys, and what `ip` told of
adapters that no virtual bus can stand for.
"""

import fcntl
import os
import pathlib
import signal
import stat
import subprocess

import pytest
from conftest import TOOL

DATA = pathlib.Path(__file__).with_name("data")
IDS = {"idVendor": "1d50", "idProduct": "606f", "serial": "0042", "busnum": "1", "devnum": "4"}
USB = 'ATTR{idVendor}=="1d50", ATTR{idProduct}=="606f", ATTR{serial}=="0042"'


def write(root, path, text):
    file = root / path
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_text(text + "\n")
    return file


def link(root, path, target):
    (root / path).parent.mkdir(parents=True, exist_ok=True)
    (root / path).symlink_to(target)


@pytest.fixture
def tree(tmp_path):
    """A machine whose kernel has CAN, and that has nothing else."""
    root = tmp_path / "machine"
    write(root, "proc/net/protocols", "CAN_RAW   840  2  -1  NI 0 yes can_raw")
    return root


def plug(root, product, driver=None):
    """A USB device, whose interface a driver may have taken."""
    for name, text in {**IDS, "product": product}.items():
        write(root, f"sys/bus/usb/devices/1-2/{name}", text)
    write(root, "sys/bus/usb/devices/1-2/1-2:1.0/modalias", "usb:v1D50p606Fd0000")
    write(root, "dev/bus/usb/001/004", "")
    if driver:
        link(root, "sys/bus/usb/devices/1-2/1-2:1.0/driver", f"/sys/bus/usb/drivers/{driver}")


def fake_ip(folder, script):
    """A program `ip`, alone in PATH with what it needs."""
    program = write(folder, "path/ip", f"#!/bin/sh\n{script}")
    program.chmod(0o755)
    return f"{program.parent}:{os.environ['PATH']}"


def examine(sim, address, *options, **environment):
    """The findings by key, and the exit status."""
    named = ["-H", address] if address else []
    done = sim.korvane("doctor", "--json", *named, *options, **environment)
    found = {row["key"]: row for entry in done.json["links"] for row in entry["findings"]}
    assert done.json["status"] == done.status
    return found, done.status


def states(found, state):
    return {key for key, row in found.items() if row["state"] == state}


@pytest.mark.parametrize(
    "captured, model, bad, warning",
    [
        ("good", "brisa", set(), set()),
        ("vcan", "brisa", set(), set()),
        ("pci", "tessel", set(), set()),
        ("pci", "brisa", set(), {"data_sample_point"}),
        ("slow-data", "brisa", {"data_bit_rate"}, set()),
        ("classic", "brisa", {"fd", "mtu", "bit_rate", "data_bit_rate"}, {"sample_point", "queue", "restart"}),
        ("fresh", "brisa", {"up", "fd", "mtu", "bit_rate", "data_bit_rate"}, {"queue", "restart"}),
        ("bus-off", "brisa", {"state"}, {"error_counters", "losses", "restart"}),
        ("nobody-acknowledges", "brisa", set(), {"state", "error_counters", "losses", "queue"}),
        ("disturbed", "brisa", set(), {"state", "error_counters", "losses", "data_sample_point"}),
    ],
)
def test_interfaces_as_ip_tells_of_them(sim, tree, tmp_path, captured, model, bad, warning):
    asked = "-json -details -statistics link show dev can0"
    path = fake_ip(tmp_path, f'[ "$*" = "{asked}" ] && cat {DATA}/ip-{captured}.json')
    found, status = examine(sim, f"can0:{model}", "--root", tree, PATH=path)
    assert states(found, "bad") - {"link", "answer"} == bad
    assert states(found, "warning") == warning
    assert status == 3 or not bad
    assert bool(bad) != ("link" in found), "a hand is asked on a good link, and on no other"


@pytest.mark.parametrize(
    "captured, key, command",
    [
        ("fresh", "up", "sudo ip link set can0 type can bitrate 1000000 sample-point 0.8 dbitrate 5000000 "
                        "dsample-point 0.75 fd on restart-ms 100 && sudo ip link set can0 up"),
        ("nobody-acknowledges", "losses", "sudo ip link set can0 txqueuelen 1000"),
        ("bus-off", "state", "sudo ip link set can0 down && sudo ip link set can0 up"),
        ("bus-off", "restart", "sudo ip link set can0 down && sudo ip link set can0 type can restart-ms 100 && "
                               "sudo ip link set can0 up"),
    ],
)
def test_commands_for_interfaces(sim, tree, tmp_path, captured, key, command):
    path = fake_ip(tmp_path, f"cat {DATA}/ip-{captured}.json")
    assert examine(sim, "can0", "--root", tree, PATH=path)[0][key]["command"] == command


@pytest.mark.parametrize(
    "script", ["exit 1", "echo '[{'", "echo '[]'", "echo '[{\"ifname\": 7}]'", "yes", "kill -9 $$"]
)
def test_without_a_usable_ip_sys_tells(sim, tree, tmp_path, script):
    for name, text in {"flags": "0x40c0", "mtu": "16", "tx_queue_len": "10", "type": "280"}.items():
        write(tree, f"sys/class/net/can0/{name}", text)
    found, status = examine(sim, "can0", "--root", tree, PATH=fake_ip(tmp_path, script))
    assert status == 3
    assert states(found, "unknown") == {"ip"}
    assert states(found, "bad") == {"up", "mtu"}
    other, status = examine(sim, "can7", "--root", tree, PATH=fake_ip(tmp_path, script))
    assert (status, other["interface"]["command"]) == (3, "korvane doctor -H can0")


def test_an_ip_that_does_not_end_is_ended(sim, tree, tmp_path):
    started = tmp_path / "started"
    path = fake_ip(tmp_path, f"grep SigIgn /proc/self/status > {started}; exec >&-; exec sleep 600")
    assert states(examine(sim, "can0", "--root", tree, PATH=path)[0], "bad") == {"interface"}
    # A broken pipe ends it as it ends other programs.
    assert not int(started.read_text().split()[1], 16) & 1 << signal.SIGPIPE - 1


@pytest.mark.parametrize(
    "product, driver, is_idle",
    [("candleLight USB to CAN", None, True), ("USBCANFD-200U", None, True), ("candleLight USB to CAN", "gs_usb", False),
     ("SCANNER 3000", None, False), ("Canon LiDE", None, False), ("American keyboard", None, False)],
)
def test_an_adapter_that_no_driver_has_taken(sim, tree, product, driver, is_idle):
    plug(tree, product, driver)
    found, status = examine(sim, "can0", "--root", tree)
    assert status == 3
    assert ("adapter" in found) == is_idle
    if is_idle:
        assert found["adapter"]["command"] == "sudo modprobe -v 'usb:v1D50p606Fd0000'"


def test_no_can_in_the_kernel(sim, tmp_path):
    found, status = examine(sim, "can0", "--root", tmp_path)
    # A kernel that has it says so itself, whatever the tree holds.
    assert found["kernel"]["state"] == "ok" or found["kernel"]["command"] == "sudo modprobe can_raw"
    assert status == 3


@pytest.mark.parametrize("kind, library", [("zlg", "libusbcanfd.so"), ("hcan", "libcanbus.so")])
def test_adapters(sim, tree, tmp_path, kind, library):
    found, status = examine(sim, f"{kind}:0.0:tessel:2", "--root", tree, "--timeout", 200)
    assert (status, states(found, "unknown")) == (0, {"adapter"})
    assert found["round_trips"]["values"]["sent"] == 200
    plug(tree, "USBCANFD-200U")
    found, _ = examine(sim, f"{kind}:0.0", "--root", tree, "--timeout", 200)
    assert found["adapter"]["text"] == "USBCANFD-200U (1d50:606f)"
    for index in (5, 7):
        found, status = examine(sim, f"{kind}:{index}.0:1", "--root", tree, "--timeout", 200)
        assert (status, states(found, "bad")) == (3, {"link"})
        assert found["link"]["command"] == f"korvane doctor -H '{kind}:0.0:brisa:1'"
    found, status = examine(sim, f"{kind}:0.0", "--root", tree, "--timeout", 200, LD_LIBRARY_PATH=str(tmp_path))
    assert (status, states(found, "bad")) == (3, {"library"})
    assert library in found["library"]["command"]
    # On the whole machine a missing library matters only if such an adapter is plugged in.
    found, status = examine(sim, None, "--root", tree, "--timeout", 200, LD_LIBRARY_PATH=str(tmp_path))
    assert (status, found["library"]["state"]) == (3, "warning")


@pytest.mark.parametrize(
    "address, status, other",
    [
        ("zlg:0.0:brisa:1", 0, None),
        ("zlg:0.0:9", 4, "brisa:1"),
        ("zlg:0.0:brisa:2", 5, "brisa:1"),
        ("zlg:0.0", 6, "brisa:1"),
        ("zlg:0.1", 4, None),
    ],
)
def test_who_answers(sim, address, status, other):
    found, ended = examine(sim, address)
    command = found["answer"]["command"]
    assert ended == status
    assert found["link"]["state"] == "ok"
    assert command == (f"korvane doctor -H 'zlg:0.0:{other}'" if other else "korvane find" if status else None)


@pytest.mark.parametrize(
    "fault, bad, warning, status",
    [
        ("--loss=0.05", set(), {"round_trips"}, 0),
        ("--duplicate=0.5", set(), {"others"}, 0),
        ("--silent-after=20", {"round_trips"}, set(), 4),
    ],
)
def test_how_well_a_hand_answers(make_sim, fault, bad, warning, status):
    found, ended = examine(make_sim("--hand=brisa:1", fault, serial=False), "zlg:0.0:brisa:1", "--timeout", 50)
    assert (ended, states(found, "bad")) == (status, bad)
    assert warning <= states(found, "warning")


def port_tree(root, port, latency):
    """A USB port that leads to a pseudo-terminal."""
    plug(root, "Serial adapter")
    usb = root / "sys/bus/usb/devices/1-2/1-2:1.0/ttyUSB0"
    write(usb, "latency_timer", latency)
    link(root, "sys/bus/usb/devices/1-2/1-2:1.0/ttyUSB0/driver", "/sys/bus/usb-serial/drivers/ftdi_sio")
    link(root, "sys/bus/usb-serial/devices/ttyUSB0", usb)
    link(root, "sys/class/tty/ttyUSB0/device", usb)
    link(root, "dev/ttyUSB0", port)
    return root / "dev/ttyUSB0"


@pytest.mark.parametrize("latency", ["1", "16"])
def test_latency_of_a_serial_chip(sim, tree, latency):
    port = port_tree(tree, sim.port, latency)
    found, status = examine(sim, f"serial:{port}", "--root", tree, "--timeout", 1000)
    assert (status, states(found, "bad")) == (0, set())
    assert found["chip"]["text"] == "Serial adapter (1d50:606f)"
    # On a busy machine round trips may be worth a warning of their own.
    assert states(found, "warning") - {"round_trips"} == ({"latency"} if latency == "16" else set())
    if latency == "16":
        parent = USB.replace("ATTR", "ATTRS")
        rule = f'SUBSYSTEM=="usb-serial", ACTION=="add", DRIVER=="ftdi_sio", {parent}, ATTR{{latency_timer}}="1"'
        assert f"echo '{rule}' | sudo tee -a /etc/udev/rules.d/" in found["latency"]["command"]
    everything = sim.korvane("doctor", "--json", "--root", tree, "--timeout", 300).json["links"]
    assert [row for row in everything[-1]["findings"] if row["key"] == "hands"][0]["state"] == "ok"


def test_a_port_that_others_have(sim):
    address = f"serial:{sim.port}"
    with open(sim.port, "rb+", buffering=0) as port:
        found, status = examine(sim, address)
        assert (status, states(found, "warning") & {"use"}) == (0, {"use"})
        assert found["use"]["command"] == f"kill {os.getpid()}"
        fcntl.flock(port, fcntl.LOCK_EX)
        found, status = examine(sim, address)
        assert (status, states(found, "bad")) == (3, {"use"})
    assert examine(sim, address)[0]["use"]["state"] == "ok"


@pytest.mark.parametrize(
    "path, key, text", [("/nowhere", "port", "No such file"), ("/etc/passwd", "port", "is a file"),
                        ("/dev/null", "use", "no serial port")]
)
def test_what_is_no_port(sim, path, key, text):
    found, status = examine(sim, f"serial:{path}")
    assert (status, states(found, "bad")) == (3, {key})
    assert text in found[key]["text"]


def test_a_port_that_goes_while_the_hand_is_asked(make_sim):
    going = make_sim("--hand=brisa:1", "--serial-unplug-after=30")
    found, status = examine(going, f"serial:{going.port}")
    assert (status, states(found, "bad")) == (3, {"round_trips"})


@pytest.mark.parametrize("silent", ["serial:{}", "serial:{}:7"])
def test_a_silent_port(make_sim, silent):
    quiet = make_sim("--hand=brisa:1", "--silent-after=0")
    found, status = examine(quiet, silent.format(quiet.port))
    assert (status, states(found, "bad")) == (4, {"answer"})


@pytest.mark.skipif(os.getuid() != 0, reason="only root may become another user")
def test_without_permission(sim, tree):
    """As a user who is in no group."""
    plug(tree, "USBCANFD-200U")
    (tree / "dev/bus/usb/001/004").chmod(0o600)
    for folder in [tree, *tree.parents]:
        if stat.S_IMODE(folder.stat().st_mode) & 0o5 != 0o5:
            folder.chmod(0o755)
    device = os.path.realpath(sim.port)
    os.chmod(device, 0o620)
    run = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", TOOL, "doctor", "--root", tree, "-H"]
    port = subprocess.run([*run, f"serial:{device}"], capture_output=True, text=True, env=sim.env)
    assert port.returncode == 3
    assert "sudo usermod -aG dialout $USER" in port.stdout
    adapter = subprocess.run([*run, "zlg:0.1"], capture_output=True, text=True, env=sim.env).stdout
    assert f"echo 'SUBSYSTEM==\"usb\", {USB}, MODE=\"0660\", GROUP=\"plugdev\"'" in adapter
    assert "sudo usermod -aG plugdev $USER" in adapter


def test_text_for_people(sim):
    text = sim.korvane("doctor", "-H", "zlg:0.0:brisa:2").out.splitlines()
    assert text[0] == "zlg:0.0:brisa:2"
    bad = next(i for i, line in enumerate(text) if line.startswith("  bad"))
    assert text[bad].split()[:2] == ["bad", "answer"]
    assert text[bad + 1].strip() == "korvane doctor -H 'zlg:0.0:brisa:1'"
    assert text[-1].endswith("1 bad")
