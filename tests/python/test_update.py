"""Updates of firmware: progress on the calling thread, and what ends the wait for one."""

import os
import signal
import threading

import conftest
import korvane
import pytest

PACKETS = 5


@pytest.fixture
def firmware(tmp_path):
    path = tmp_path / "firmware.bin"
    path.write_bytes(bytes(range(256)) * 8 * PACKETS)
    return path


@pytest.fixture(params=["serial", "zlg", "hcan"])
def make_hand(request, tmp_path):
    """A hand whose simulator has these options."""
    made = []

    def make(*options):
        simulator = conftest.Simulator(tmp_path, "--hand=brisa:1", "--restart-ms=1", *options)
        hand = korvane.open(simulator.address(request.param), korvane.Brisa)
        hand.reply_timeout_ms = 1000
        made.append((hand, simulator))
        return hand

    yield make
    for hand, simulator in made:
        hand.close()
        simulator.stop()


def wait_for_end(hand):
    while hand.updating:
        threading.Event().wait(0.01)


def test_an_update(make_hand, firmware):
    hand = make_hand("--firmware-version=1.2.3")
    seen = []
    hand.update(firmware, lambda *report: seen.append((threading.current_thread(), *report)))
    assert {thread for thread, *_ in seen} == {threading.main_thread()}
    assert seen[-1][-1] is korvane.UpdateStatus.COMPLETE
    assert sum(status == korvane.UpdateStatus.PACKET_ACKNOWLEDGED for *_, status in seen) >= PACKETS
    assert not hand.updating


@pytest.mark.parametrize("make_hand", ["zlg"], indirect=True)
def test_an_update_that_the_hand_refuses(make_hand, firmware):
    hand = make_hand("--update-status=upgrade:5")
    with pytest.raises(korvane.KorvaneError, match="UpdateFirmware|update"):
        hand.update(firmware)
    assert not hand.updating


class Stop(Exception):
    pass


@pytest.mark.parametrize("way", ["an exception", "ctrl-c"])
def test_what_ends_the_wait_lets_the_update_go_on(way, make_hand, firmware):
    hand = make_hand()

    def progress(current, total, status):
        if way == "ctrl-c":
            os.kill(os.getpid(), signal.SIGINT)
        else:
            raise Stop

    with pytest.raises(KeyboardInterrupt if way == "ctrl-c" else Stop):
        hand.update(firmware, progress)
    if hand.updating:
        try:
            hand.positions()
        except korvane.KorvaneError as error:
            assert "an update of its firmware is running" in str(error) or not hand.updating
    wait_for_end(hand)


def test_the_interpreter_waits_for_an_update(tmp_path, firmware):
    done = conftest.run("""
import korvane, sys, logging
logging.basicConfig(format="%(message)s", level=logging.WARNING)
hand = korvane.simulated(options=["--restart-ms=1"])
def progress(current, total, status):
    raise KeyError("stop")
hand.update(sys.argv[1], progress)
""", firmware)
    assert done.returncode == 1 and "KeyError: 'stop'" in done.stderr
    assert "waiting for its end" in done.stderr


def test_an_update_without_a_thread_leaves_nothing_behind(firmware):
    done = conftest.run("""
import ctypes, korvane, sys
hand = korvane.simulated()
pthread = ctypes.CDLL(None)
usual, impossible = (ctypes.create_string_buffer(256) for _ in range(2))
pthread.pthread_getattr_default_np(usual)
pthread.pthread_attr_init(impossible)
pthread.pthread_attr_setstacksize(impossible, ctypes.c_size_t(1 << 47))
pthread.pthread_setattr_default_np(impossible)
try:
    hand.update(sys.argv[1])
except RuntimeError as error:
    print(error)
pthread.pthread_setattr_default_np(usual)
print(hand.updating, len(hand.positions()))
""", firmware)
    assert done.stdout == "Resource temporarily unavailable\nFalse 10\n", done.stderr
    assert done.stderr == ""


#: Each with a silent simulator at its side.
WAITS = {
    "calls": """
os.kill(hand.simulator.process.pid, signal.SIGSTOP)
while True:
    try:
        hand.positions()
    except korvane.KorvaneError:
        pass
""",
    "a move": "hand.move([0] * 10, seconds=100)",
    "a stream": "next(stream)",
    "a search": "while True: korvane.find(places=[silent.address])",
    "a recording": "korvane.record(hand, sys.argv[1] + '/r.csv', seconds=100)",
}


@pytest.mark.parametrize("wait", WAITS)
def test_ctrl_c_ends_a_wait(wait, tmp_path):
    """Each would last 100 s and more; one search of a silent port can't be stopped."""
    done = conftest.run(f"""
import korvane, os, signal, sys, threading, time
hand = korvane.simulated()
stream = hand.stream(0.01)
next(stream)
silent = korvane.Simulator()
os.kill(silent.process.pid, signal.SIGSTOP)

begin = time.monotonic()
try:
    threading.Timer(0.2, lambda: os.kill(os.getpid(), signal.SIGINT)).start()
    exec({WAITS[wait]!r})
except KeyboardInterrupt:
    print(time.monotonic() - begin < 60)
""", tmp_path)
    assert done.stdout == "True\n", done.stderr
