"""find, info and watch: what is there, and what is told where something else is."""

import csv
import io
import json
import os
import signal
import subprocess

import pytest
from conftest import LIMIT, command_line
from simulator import BUILD, HANDS, MODELS


def test_find_lists_every_hand_on_every_link(sim):
    found = sim.korvane("find", "--json", "--link", "zlg", "--link", "hcan")
    hands = [(h["address"], h["model"], h["id"]) for h in found.json["hands"]]
    assert found.status == 0
    assert hands == [
        (f"{link}:0.0:{m}:{i}", m, i) for link in ("zlg", "hcan") for m, (i, _) in MODELS.items()
    ]
    assert found.json["hands"][0]["serial_number"].startswith("SIM")
    port = sim.korvane("find", "--json", f"serial:{sim.port}").json["hands"]
    assert [h["model"] for h in port] == ["brisa"]
    text = sim.korvane("find", "zlg:0.0:2").out.splitlines()
    assert text[0].split() == ["ADDRESS", "PRODUCT", "SERIAL", "NUMBER", "FIRMWARE"]
    assert [line.split()[0] for line in text[1:]] == ["zlg:0.0:tessel:2"]
    # Places that overlap, and a hand that only the other commands are about.
    same = sim.korvane("find", "--json", "zlg:0.0:2", "zlg:0.0:tessel:2", KORVANE_HAND="hcan:0.0:lumen:4")
    assert [h["address"] for h in same.json["hands"]] == ["zlg:0.0:tessel:2"]


@pytest.mark.parametrize(
    "places, status, reason",
    [
        (["zlg:0.1"], 4, None),
        (["serial:/nowhere"], 3, "/nowhere"),
        (["nosuch0"], 3, "nosuch0"),
        (["zlg"], 2, None),
        (["--link", "usb"], 2, None),
    ],
)
def test_find_says_what_it_could_not_ask(sim, places, status, reason):
    found = sim.korvane("find", "--json", *places)
    assert found.status == status
    if reason:
        assert reason in found.json["not_asked"][0]["text"]


@pytest.mark.parametrize("link, model", HANDS)
def test_info_tells_what_a_model_has(sim, link, model):
    hand_id, motors = MODELS[model]
    told = sim.korvane("info", "-H", sim.address(link, model), "--json")
    info = told.json
    assert told.status == 0, told.err
    assert (info["model"], info["id"], len(info["positions"])) == (model, hand_id, motors)
    assert ("angles" in info) == (model in ("brisa", "tessel"))
    assert ("touch" in info) == (model in ("brisa", "tessel", "quill"))
    assert ("errors" in info) == (model != "quill")
    assert info["firmware"] == "1.0.0" and info["product_model"] and "failures" not in info
    text = sim.korvane("info", "-H", sim.address(link, model)).out
    assert any(line.split()[:1] == [str(motors)] for line in text.splitlines()) and info["serial_number"] in text
    supply = [line.split(maxsplit=1)[1] for line in text.splitlines() if line.startswith("supply")]
    assert supply == ["not told" if link == "serial" else f"{info['supply_voltage_mv'] / 1000:.1f} V"]


WRONG_TURNS = [
    (["-H", "zlg:0.0:brisa:9"], 4, "no hand with id 9"),
    (["-H", "zlg:0.0:brisa:2"], 5, "tessel with id 2"),
    (["-H", "zlg:0.0"], 6, "several hands answer"),
    (["-H", "nosuch0:brisa:1"], 3, ""),
    (["-H", "serial:/nowhere"], 3, "/nowhere"),
    (["-H", "serial:/dev/null"], 3, "/dev/null"),
    (["-H", "zlg:7.0:brisa:1"], 3, ""),
    (["-H", "zlg:0.0:brisa:300"], 2, "300"),
    ([], 2, "KORVANE_HAND"),
    (["-H", "zlg:0.0:1", "-H", "zlg:0.0:2"], 2, "one hand"),
    (["--nonsense"], 2, "--nonsense"),
    (["-H", "zlg:0.0:1", "--timeout", "5"], 2, "--timeout"),
]


@pytest.mark.parametrize("command", ["info", "watch"])
@pytest.mark.parametrize("arguments, status, text", WRONG_TURNS)
def test_wrong_turns_end_with_their_status_and_a_reason(sim, command, arguments, status, text):
    told = sim.korvane(command, *arguments)
    assert (told.status, told.out) == (status, "") and text in told.err
    if status != 2:
        failure = sim.korvane(command, "--json", *arguments).json["error"]
        assert failure["status"] == status and text in failure["text"] and failure["kind"] != "NONE"


@pytest.mark.parametrize(
    "arguments",
    ["move --to 0 --seconds", "move --to 0 --hold", "replay /dev/null --speed", "replay /dev/null --max-speed",
     "record --rate", "record --seconds", "watch --seconds", "serve --rate"],
)
def test_a_number_that_is_not_finite_is_refused(sim, arguments):
    for number in ("nan", "inf", "1e999"):
        told = sim.korvane(*arguments.split(), number, "-H", sim.address("zlg"))
        assert (told.status, told.out) == (2, "") and f"{number} is no finite number" in told.err


def test_whole_numbers_are_decimal(sim):
    for number in ("0x10", "1e2", "99999999999"):
        told = sim.korvane("bench", "--count", number, "-H", sim.address("zlg"))
        assert (told.status, told.out) == (2, "") and f"{number} is no whole number" in told.err
    told = sim.korvane("bench", "--count", "010", "--json", "-H", sim.address("zlg"))
    assert told.json["single_read"]["count"] == 10


def test_a_hand_may_be_named_by_the_environment_and_an_option_goes_before_it(sim):
    lumen, vanta = sim.address("zlg", "lumen"), sim.address("zlg", "vanta")
    assert sim.korvane("info", "--json", KORVANE_HAND=lumen).json["id"] == 4
    assert sim.korvane("info", "--json", "-H", vanta, KORVANE_HAND=lumen).json["id"] == 5
    quiet = sim.korvane("info", "-q", "-H", vanta)
    assert (quiet.status, quiet.out, quiet.err) == (0, "", "")


def test_watch_writes_lines_that_programs_can_read(sim):
    hand = ("-H", sim.address("zlg", "tessel"), "--rate", "100")
    process = sim.start("watch", *hand, "--csv", "--values", "angles,currents", "--report-period", "10")
    lines = [process.stdout.readline() for _ in range(4)]
    process.send_signal(2)
    process.communicate()
    assert process.returncode == 0
    rows = list(csv.DictReader(io.StringIO("".join(lines[1:]))))
    assert json.loads(lines[0][1:])["model"] == "tessel"
    assert list(rows[0])[1] == "angles_thumb_1" and list(rows[0])[-1] == "currents_12"
    assert float(rows[1]["time_s"]) > float(rows[0]["time_s"]) >= 0
    objects = sim.korvane("watch", *hand, "--json", "--seconds", "0.2").out.splitlines()
    assert len(json.loads(objects[1])["positions"]) == 12
    assert "--report-period" in sim.korvane("watch", *hand, "--csv", "--values", "currents").err
    # A reader that has enough ends it, as Ctrl-C does.
    process = sim.start("watch", *hand, "--csv")
    process.stdout.readline()
    process.stdout.close()
    assert process.stderr.read() == "" and process.wait(LIMIT) == 0


def test_watch_without_a_terminal_shows_the_last_picture(sim):
    told = sim.korvane("watch", "-H", sim.address("hcan", "brisa"), "--seconds", "0.3")
    assert told.status == 0 and "\x1b" not in told.out
    assert "index_flexion" in told.out and "palm" in told.out and "readings/s" in told.out


@pytest.mark.parametrize(
    "fault, link, status", [("--silent-after=60", "zlg", 4), ("--serial-unplug-after=40", "serial", 3)]
)
@pytest.mark.parametrize(
    "command, fits",
    [
        ("watch --json --timeout 100", lambda out: "error" in [json.loads(line) for line in out.splitlines()][-1]),
        # The output is the recording's own.
        ("record --json --timeout 100", lambda out: out.startswith("# {") and "error" not in out),
        ("move --to 500 --seconds 20", lambda out: "nothing more is sent" in out and "doesn't say where" in out),
    ],
)
def test_a_command_ends_when_the_hand_has_gone(make_sim, fault, link, status, command, fits):
    sim = make_sim("--hand=brisa:1", fault)
    gone = sim.korvane(*command.split(), "-H", sim.address(link))
    assert gone.status == status
    assert gone.err
    assert fits(gone.out), gone.out


@pytest.mark.parametrize(
    "command",
    [
        "find PORT", "info", "doctor", "watch", "record", "move --gesture 1", "bench", "serve --port 0",
        "service report", "update -y /bin/true",
    ],
)
def test_ctrl_c_ends_a_command_that_waits_for_a_hand(make_sim, command):
    sim = make_sim("--silent-after", "0")
    arguments = command.replace("PORT", f"serial:{sim.port}").split()
    hand = () if "find" in command else ("-H", sim.address("serial"))
    ended = sim.interrupt(*arguments, *hand, after=sim.port)
    assert (ended.status, ended.out, ended.err) == (130, "", "")


def close_standard_streams():
    for stream in range(3):
        os.close(stream)


def test_a_closed_stream_does_not_become_the_port_of_a_hand(sim):
    line = command_line(["watch", "-q", "-H", sim.address("serial")])
    process = subprocess.Popen(line, env=sim.env, preexec_fn=close_standard_streams)
    while process.poll() is None and not sim.is_open_in(process):
        pass
    assert [os.readlink(f"/proc/{process.pid}/fd/{stream}") for stream in range(3)] == ["/dev/null"] * 3
    process.kill()
    process.wait(LIMIT)
    line = command_line(["info", "-H", sim.address("serial")])
    assert subprocess.run(line, env=sim.env, preexec_fn=close_standard_streams, timeout=LIMIT).returncode == 1


def on_full_disk(sim, stream, command):
    with open("/dev/full", "w") as full:
        pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, stream: full}
        return subprocess.run(command_line(command.split()), **pipes, text=True, env=sim.env, timeout=LIMIT)


@pytest.mark.parametrize(
    "command",
    ["find zlg:0.0:2", "info -H zlg:0.0:brisa:1", "info --json -H zlg:0.0:vanta:5", "watch --csv -H zlg:0.0:brisa:1",
     "--help-all"],
)
def test_nothing_is_believed_that_could_not_be_written(sim, command):
    done = on_full_disk(sim, "stdout", command)
    assert done.returncode == 1 and "No space left" in done.stderr


def test_the_simulator_says_when_its_help_could_not_be_written():
    with open("/dev/full", "w") as full:
        done = subprocess.run([BUILD / "bin" / "korvane-sim", "--help"], stdout=full, stderr=subprocess.PIPE, text=True,
                              timeout=LIMIT)
    assert done.returncode == 1 and "No space left" in done.stderr


@pytest.mark.parametrize(
    "command, status",
    [("info -H can99:brisa:1", 3), ("info -v -H zlg:0.0:brisa:9", 4), ("--nonsense", 2),
     ("info -v -H zlg:0.0:brisa:1", 0)],
)
def test_a_reason_that_could_not_be_written_changes_no_status(sim, command, status):
    assert on_full_disk(sim, "stderr", command).returncode == status


def test_ctrl_c_switches_reports_off_that_do_not_come(make_sim, tmp_path):
    sim = make_sim("--hand=tessel:2", "--silent-after=2", serial=False)  # enough to be opened twice
    frames = tmp_path / "frames"
    recorder = sim.start("record", "-H", "hcan:0.0:tessel:2", "--frames", "-o", frames)
    while not (frames.exists() and frames.stat().st_size):
        sim.korvane("info", "-H", "zlg:0.0:tessel:9", "--timeout", 10)
    stopped = sim.start("watch", "--csv", "--values", "currents", "--report-period", 65535, "-H", "zlg:0.0:tessel:2")
    on = "FFFF" * 12
    while on not in frames.read_text():
        assert recorder.poll() is None
    stopped.send_signal(signal.SIGINT)
    stopped.communicate(timeout=LIMIT)
    recorder.send_signal(signal.SIGINT)
    recorder.communicate(timeout=LIMIT)
    sent = [line.split()[-1].split("##1") for line in frames.read_text().splitlines()]
    switched_on = [function for function, data in sent if on in data]
    switched_off = [function for function, data in sent if set(data) == {"0"} and function in switched_on]
    assert switched_on and switched_off == switched_on
