"""Nothing crashes or hangs, in whatever order hands, streams, threads and processes end."""

import gc
import threading
import weakref

import conftest
import korvane
import pytest

BEGIN = "import korvane, os, sys, threading, time, gc, signal\nhand = korvane.simulated()\n"

#: What a program does before it simply ends.
ENDINGS = {
    "an open hand": "",
    "a hand in a cycle": "cycle = [hand]; cycle.append(cycle); del hand, cycle",
    "two hands, the first gone": "other = korvane.simulated(); del hand; other.positions()",
    "two hands, the second gone": "other = korvane.simulated(); del other; hand.positions()",
    "a closed hand": "hand.close(); hand.close()",
    "a stream that runs": "stream = hand.stream(500); next(stream)",
    "a stream whose hand is closed": "stream = hand.stream(500); next(stream); hand.close(); del hand",
    "a stream without its hand": "stream = hand.stream(500); del hand; next(stream)",
    "a recording that runs": "recorder = korvane.record(hand, sys.argv[1] + '/r.csv')",
    "a daemon thread that calls": """
def call():
    while True:
        hand.positions()
for _ in range(4):
    threading.Thread(target=call, daemon=True).start()
for _ in range(20):
    hand.positions()
""",
    "a daemon thread that waits for a reply": """
os.kill(hand.simulator.process.pid, signal.SIGSTOP)
threading.Thread(target=hand.positions, daemon=True).start()
""",
    "a hand kept by the interpreter": "sys.kept = hand; import atexit; atexit.register(lambda: print(hand.closed))",
    "the module first": "sys.modules.clear(); del korvane",
    "frames in the log": """
import logging
logging.basicConfig(filename=os.devnull, level=0)
hand.log_frames(True)
hand.positions()
""",
    "an exception": """
try:
    raise KeyError
except KeyError as error:
    error.hand = hand
    sys.last_value = error
""",
    "exec of threads in the end": "threading.Thread(target=lambda: [hand.positions() for _ in range(50)]).start()",
}


@pytest.mark.parametrize("ending", ENDINGS)
def test_programs_end_without_a_word(ending, tmp_path):
    done = conftest.run(BEGIN + ENDINGS[ending], tmp_path)
    assert done.returncode == 0, done.stderr
    if "daemon" not in ending:  # whose call fails when the hand goes
        assert done.stderr == ""


def test_garbage_takes_the_link(brisa):
    other = korvane.simulated()
    process = other.simulator.process
    handle = weakref.ref(other)
    del other
    gc.collect()
    assert handle() is None
    assert process.wait(conftest.LIMIT) is not None


def test_a_closed_hand_says_so(brisa):
    brisa.close()
    assert brisa.closed and "closed" in repr(brisa)
    for call in (
        brisa.positions, lambda: brisa.set_positions([0] * 10), lambda: brisa.statistics,
        lambda: brisa.reply_timeout_ms,
    ):
        with pytest.raises(korvane.LinkLost, match=f"{brisa.address}: it is closed; open it anew"):
            call()


def test_closing_waits_for_the_call_of_another_thread(silent):
    started, failed = threading.Event(), []

    def call():
        started.set()
        try:
            silent.positions()
        except korvane.KorvaneError as error:
            failed.append(error)

    thread = threading.Thread(target=call)
    thread.start()
    started.wait(conftest.LIMIT)
    silent.close()
    thread.join(conftest.LIMIT)
    assert len(failed) == 1


FORK = BEGIN + """
stream = hand.stream(200)
next(stream)
child = os.fork()
if child == 0:
    try:
        hand.positions()
    except korvane.LinkLost as error:
        print(error)
    other = korvane.simulated()     # a child may have hands of its own
    print(len(other.positions()))
    del hand, stream, other
    gc.collect()
    sys.exit(7)
print(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
print(len(hand.positions()))
"""


def test_the_child_of_a_fork_is_told():
    done = conftest.run(FORK)
    assert done.returncode == 0 and done.stderr == "", done.stderr
    assert "opened before a fork" in done.stdout
    assert done.stdout.split("\n")[1:] == ["10", "7", "10", ""]
