"""update: what it refuses, what it shows, and what it says when an update ends early."""

import os
import pty
import re
import signal

import pytest
from conftest import TOOL, command_line

PACKET = 2048
LINKS = ("zlg", "hcan", "serial")


@pytest.fixture
def image(tmp_path):
    def make(packets):
        path = tmp_path / f"{packets}.bin"
        path.write_bytes(bytes(range(1, 129)) * (PACKET // 128) * packets)
        return path

    return make


@pytest.mark.parametrize(
    "address, packets, options, status, says",
    [
        ("zlg:0.0:1", 1, ["--yes"], 2, "--model"),
        ("zlg:0.0:brisa:1", 1, ["--yes", "--model", "tessel"], 2, "two models"),
        ("zlg:0.0:brisa:1", 1, ["--yes", "--expect", "new"], 2, "no version"),
        ("zlg:0.0:brisa:1", 1, ["--yes", "--expect", "1.0." + "0" * 40000], 2, "no version"),
        ("zlg:0.0:brisa:1", 1, [], 2, "--yes"),
        ("zlg:0.0:brisa:1", 0, ["--yes"], 2, "empty"),
        ("zlg:0.0:brisa:1", None, ["--yes"], 2, "can't be opened"),
        ("serial:{port}:brisa", 151, ["--yes"], 2, "at most 150"),
        ("zlg:0.0:1", 1, ["--yes", "--model", "tessel"], 5, "brisa with id 1"),
        ("zlg:0.1:brisa:1", 1, ["--yes"], 4, ""),
        ("serial:/nowhere:brisa", 1, ["--yes"], 3, "/nowhere"),
    ],
)
def test_refuses_before_anything_is_sent(sim, image, address, packets, options, status, says):
    file = image(packets) if packets is not None else "/nowhere/image.bin"
    done = sim.korvane("update", file, "-H", address.format(port=sim.port), *options)
    assert (done.status, done.out) == (status, "")
    assert says in done.err


def tries(link):
    """A busy machine keeps what a hand acknowledges on a serial port for longer than an update waits there: once more
    then, as the tool advises."""
    return range(5 if link == "serial" else 1)


def update(sim, link, *arguments):
    for _ in tries(link):
        done = sim.korvane("update", *arguments, "-H", sim.address(link), "--yes")
        if done.status == 0:
            break
    return done


@pytest.mark.parametrize("link", LINKS)
def test_updates_and_reads_the_version_back(make_sim, image, link):
    sim = make_sim("--restart-ms=100")
    done = update(sim, link, image(20), "--json", "--expect", "1.1.0.0")
    assert done.status == 0, done.err
    told = done.json
    assert (told["version_before"], told["version_after"]) == ("1.0.0", "1.1.0")
    assert (told["packets"], told["updated"], told["model"]) == (20, True, "brisa")
    text = update(sim, link, image(20)).out
    assert re.findall(r"^ *(\d+) %", text, re.M) == [str(p) for p in range(10, 101, 10)]
    assert "the hand runs version 1.2.0, before 1.1.0" in text


@pytest.mark.parametrize(
    "link, faults, status, code, state, advice",
    [
        ("zlg", ["--update-status=upgrade:3"], 1, 3, "took no packet", "status 3"),
        ("hcan", ["--update-status=packet:1@3"], 1, -7, "took 2 of 20", "file isn't for this hand"),
        ("zlg", ["--update-status=finish:9"], 1, 9, "took 20 of 20", "status 9"),
        ("serial", ["--update-status=upgrade:3"], 1, -4, "took no packet", "The hand refused"),
        ("serial", ["--update-status=restart:2"], 1, None, "the whole image", "refuses to restart"),
        ("serial", ["--serial-unplug-after=60"], 3, None, "of 20 packets", "once more"),
    ],
)
def test_says_what_to_do_after_a_failure(make_sim, image, link, faults, status, code, state, advice):
    sim = make_sim()
    for _ in tries(link):
        sim.restart(*faults)
        done = sim.korvane("update", image(20), "-H", sim.address(link), "--yes", "--json")
        error = done.json["error"]
        if done.status == status:
            break
    assert (done.status, error["status"], error["code"]) == (status, status, code), done.out
    assert done.json["updated"] is False
    assert state in error["state"] and advice in error["advice"]
    assert error["state"] in done.err and error["advice"] in done.err


def test_tells_that_another_version_runs(make_sim, image):
    sim = make_sim("--restart-ms=100")
    done = sim.korvane("update", image(1), "-H", sim.address("zlg"), "--yes", "--json", "--expect", "7.0.0")
    assert (done.status, done.json["version_after"], done.json["updated"]) == (1, "1.1.0", True)
    assert "not 7.0.0" in done.json["error"]["text"]


@pytest.fixture
def slow(make_sim, tmp_path):
    """Hands that take their time, and what starts an update of the first and waits until it is on its way."""
    sim = make_sim("--hand=tessel:1", "--hand=tessel:2", "--delay-ms=40", "--restart-ms=100")
    sim.env["XDG_RUNTIME_DIR"] = str(tmp_path)

    def begin(image):
        process = sim.start("update", image, "-H", sim.address("zlg", "tessel", 1), "--yes")
        while "10 %" not in process.stdout.readline():
            assert process.poll() is None
        return process

    return sim, begin


@pytest.mark.parametrize("times, status", [(1, 0), (2, 130)])
def test_ctrl_c_asks_first(slow, image, times, status):
    process = slow[1](image(50))
    process.send_signal(signal.SIGINT)
    asked = process.stderr.readline()
    assert "Ctrl-C once more" in asked
    if times == 2:
        process.send_signal(signal.SIGINT)
    out, err = process.communicate(timeout=60)
    assert process.returncode == status
    assert ("of 50 packets: it may be without firmware" in err) == (times == 2)
    assert ("the hand runs version 1.1.0" in out) == (times == 1)


def test_a_reader_that_goes_leaves_the_update_to_its_end(slow, image):
    sim, begin = slow
    process = begin(image(20))
    process.stdout.close()
    assert "the output can't be written: Broken pipe" in process.stderr.read()
    assert process.wait(60) == 1
    assert sim.korvane("info", "-H", sim.address("zlg", "tessel", 1), "--json").json["firmware"] == "1.1.0"


@pytest.mark.parametrize(
    "hand, status, says",
    [
        ("zlg:0.0:tessel:1", 1, "another update of this hand is running"),
        ("zlg:0.0:1?side=left", 1, "another update of this hand is running"),
        ("zlg:0.0:tessel:2", 0, "the hand runs version 1.1.0"),
    ],
)
def test_a_hand_is_updated_by_one_at_a_time(slow, image, hand, status, says):
    sim, begin = slow
    first = begin(image(20))
    second = sim.korvane("update", image(1), "-H", hand, "--model", "tessel", "--yes")
    assert second.status == status and says in second.out + second.err, second
    out, err = first.communicate(timeout=60)
    assert first.returncode == 0 and "the hand runs version 1.1.0" in out, err


def on_terminal(sim, answer, *arguments):
    """Runs a command on a terminal and answers its question. Its status and all that it showed."""
    child, terminal = pty.fork()
    if child == 0:
        os.environ.update(sim.env, TERM="xterm", NO_COLOR="1")
        os.execv(TOOL, command_line(arguments))
    shown = b""
    while True:
        try:
            piece = os.read(terminal, 4096)
        except OSError:  # the other end has closed
            break
        if not piece:
            break
        if b"[y/N]" in piece or (b"[y/N]" in shown + piece and b"[y/N]" not in shown):
            os.write(terminal, answer.encode() + b"\n")
        shown += piece
    os.close(terminal)
    return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), shown.decode()


@pytest.mark.parametrize("answer, status", [("y", 0), ("n", 130)])
def test_asks_on_a_terminal_and_draws_one_bar(make_sim, image, answer, status):
    sim = make_sim("--restart-ms=100")
    file = image(40)
    ended, shown = on_terminal(sim, answer, "update", file, "-H", sim.address("zlg"))
    assert ended == status, shown
    for part in (sim.address("zlg"), "1.0.0", str(file), str(40 * PACKET)):
        assert part in shown.split("[y/N]")[0]
    bars = re.findall("\x1b\\[\\?25l(.*)\x1b\\[\\?25h", shown, re.S)
    assert len(bars) == (1 if status == 0 else 0)
    for line in re.sub("\r|\x1b\\[\\d*[AKJ]", "", "".join(bars)).splitlines():
        assert re.fullmatch(r"[█·]{30} +\d+ %  \d+/\d+ packets  .*", line), line
