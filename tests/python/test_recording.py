"""Streams, and recordings that the tool plays and Python reads."""

import importlib.util
import json
import os
import signal
import subprocess
import sys
import threading
import time

import conftest
import korvane
import numpy as np
import pytest


def test_samples_come_in_order(brisa):
    with brisa.stream(200, ["positions", "angles", "touch"]) as stream:
        samples = [next(stream) for _ in range(20)]
    times = [sample.time for sample in samples]
    assert times == sorted(times) and stream.lost == 0
    assert samples[0]["positions"].shape == (10,) and samples[0]["angles"].shape == (16,)
    assert list(samples[0].touch) == list(korvane.FINGERS)
    assert next(iter(brisa.stream(1))).time == pytest.approx(0, abs=10)  # two streams of one hand


def test_samples_that_nobody_fetches_are_counted(brisa):
    stream = brisa.stream(1000, buffer=3)
    while stream.dropped < 5:
        time.sleep(0.001)
    stream.close()
    left = list(stream)
    assert len(left) == 3 and left[0].time > 0


def test_a_stream_whose_hand_is_silent_ends(brisa):
    brisa.reply_timeout_ms = 1000
    stream = brisa.stream(1000, buffer=10_000)
    first = next(stream)
    conftest.freeze(brisa)
    brisa.reply_timeout_ms = 10
    with pytest.raises(korvane.NoReply):
        for sample in stream:
            assert sample.time > first.time
    assert stream.lost == 20
    with pytest.raises(StopIteration):
        next(stream)


def test_what_a_model_does_not_have_is_told_at_once(brisa):
    with pytest.raises(korvane.NotSupported):
        brisa.stream(1, ["positions", "control_modes"])


def test_take_and_pandas(brisa):
    taken = brisa.stream(500).take(0.05)
    assert taken[-1].time - taken[0].time < 0.05
    if importlib.util.find_spec("pandas") is None:
        pytest.skip("no pandas")
    import pandas

    rows = [(sample.time, *sample["positions"]) for sample in brisa.stream(500).take(0.05)]
    assert pandas.DataFrame(rows).shape == (len(rows), 11)


def korvane_tool(*arguments):
    return subprocess.run(["korvane", *map(str, arguments)], capture_output=True, text=True, timeout=conftest.LIMIT)


@pytest.mark.parametrize("values", [None, ["positions", "errors", "touch"]])
def test_a_recording_is_the_tools(values, brisa, tmp_path):
    """The same head and columns as the tool's; each reads the other's."""
    brisa.reply_timeout_ms = 1000
    with korvane.record(brisa, tmp_path / "python.csv", values=values, rate=100) as recorder:
        brisa.move(gesture=3, seconds=0.3)
        recorder.wait(samples=max(20, recorder.samples + 2))  # the last of them where the hand stands
    end = brisa.positions()
    recording = korvane.load(tmp_path / "python.csv")
    assert (len(recording), recording.rate, recording.model) == (recorder.samples, 100, "brisa")
    assert recording["positions"].shape == (len(recording), 10)
    address = brisa.address
    brisa._handle.close()  # a port has one user
    options = ["--values", ",".join(values)] if values else []
    made = korvane_tool("record", "-H", address, "-o", tmp_path / "tool.csv", "--seconds", 1, "--rate", 100,
                        "--timeout", 1000, *options)
    assert made.returncode == 0, made.stderr
    heads = [(tmp_path / name).read_text().splitlines()[:2] for name in ("python.csv", "tool.csv")]
    assert heads[0] == heads[1]
    assert list(korvane.load(tmp_path / "tool.csv").columns()) == heads[1][1].split(",")
    played = korvane_tool("replay", "-H", address, tmp_path / "python.csv", "--json", "--timeout", 1000)
    assert played.returncode == 0, played.stderr
    assert np.abs(np.array(json.loads(played.stdout)["hands"][0]["positions"]) - end).max() < 400


def test_playing(brisa, tmp_path):
    korvane.record(brisa, tmp_path / "r.csv", seconds=0.1)
    with korvane.record(brisa, tmp_path / "r.csv", overwrite=True) as recorder:
        brisa.move([1000] * 10, seconds=0.3)
        brisa.wait_until_still(60)
    assert recorder.lost == 0
    brisa.move(gesture=0, seconds=0)
    brisa.play(korvane.load(tmp_path / "r.csv"), speed=3, lead_in=0.1)
    brisa.wait_until_still(60)
    assert np.abs(brisa.positions() - 1000).max() <= 5


#: What `record` is given, and what comes of it.
NOT_RECORDED = [
    ({}, FileExistsError),
    ({"overwrite": True, "values": ["control_modes"]}, korvane.NotSupported),
    ({"overwrite": True, "values": ["position"]}, korvane.BadArgument),
    ({"overwrite": True, "values": []}, korvane.BadArgument),
    ({"overwrite": True, "rate": 0}, korvane.BadArgument),
    ({"overwrite": True, "rate": "fast"}, TypeError),
]


@pytest.mark.parametrize("given, error", NOT_RECORDED, ids=str)
def test_a_file_that_is_there_stays(given, error, brisa, tmp_path):
    (tmp_path / "r.csv").write_text("dear")
    with pytest.raises(error):
        korvane.record(brisa, tmp_path / "r.csv", **given)
    assert (tmp_path / "r.csv").read_text() == "dear"


def test_bad_arguments_leave_no_file(brisa, tmp_path):
    with pytest.raises(korvane.NotSupported):
        korvane.record(brisa, tmp_path / "new.csv", values=["control_modes"])
    assert not (tmp_path / "new.csv").exists()


def test_a_single_value(brisa, tmp_path):
    with korvane.record(brisa, tmp_path / "r.csv", values="positions") as recorder:
        recorder.wait(samples=1)
    assert list(korvane.load(tmp_path / "r.csv").values) == ["positions"]


@pytest.mark.parametrize("overwrite", [False, True])
def test_without_a_thread_only_a_new_file_goes(overwrite, brisa, tmp_path, monkeypatch):
    def cannot_start(self):
        raise RuntimeError("can't start new thread")

    path = tmp_path / "r.csv"
    if overwrite:
        path.touch()
    monkeypatch.setattr(threading.Thread, "start", cannot_start)
    with pytest.raises(RuntimeError, match="new thread"):
        korvane.record(brisa, path, overwrite=overwrite)
    assert path.exists() == overwrite


def test_what_ends_a_recording_comes_out(brisa, tmp_path):
    brisa.reply_timeout_ms = 10
    with pytest.raises(korvane.KorvaneError):
        with korvane.record(brisa, tmp_path / "r.csv", rate=500) as recorder:
            recorder.wait(samples=1)
            os.kill(brisa.simulator.process.pid, signal.SIGSTOP)
            recorder.wait(conftest.LIMIT)
    assert len(korvane.load(tmp_path / "r.csv")) == recorder.samples
    with korvane.simulated() as hand, pytest.raises(OSError):
        with korvane.record(hand, "/dev/full", overwrite=True) as recorder:
            recorder.wait(conftest.LIMIT)


HEAD = '# {"korvane_recording":1,"model":"brisa","quantities":["positions"]}\n'
NO_RECORDINGS = {
    "": "expected",
    "a,b\n1,2\n3,4\n": "no recording",
    HEAD.replace(":1", ":2") + "time_s,positions_1\n0,1\n": "later version",
    HEAD.replace("brisa", "toe") + "time_s,positions_1\n0,1\n": "no model toe",
    HEAD + "positions_1,time_s\n0,1\n": "first column",
    HEAD + "time_s,positions_1\n0,1\n0.1\n": "line 4: it has 1 values",
    HEAD + "time_s,positions_1\n0,x\n": "line 3: could not convert",
    HEAD + "time_s,positions_1\n0,1\n0.1,nan\n": "line 4: not all of it are numbers",
    HEAD + "time_s,positions_1\n0,1\ninf,1\n": "line 4: not all of it are numbers",
    HEAD + "time_s,positions_1\n0,1\n0.2,1\n0.1,1\n": "line 5: its time lies before",
    HEAD.replace('["positions"]', "7") + "time_s,positions_1\n0,1\n": "no recording",
    "\udcff": "is no text",
}


@pytest.mark.parametrize("text", NO_RECORDINGS)
def test_files_that_are_no_recordings(text, tmp_path):
    (tmp_path / "r.csv").write_bytes(text.encode(errors="surrogateescape"))
    with pytest.raises(korvane.BadArgument, match=NO_RECORDINGS[text]):
        korvane.load(tmp_path / "r.csv")


def test_types():
    """The package and a program that uses it pass mypy --strict."""
    mypy = importlib.util.find_spec("mypy")
    if mypy is None:
        pytest.skip("no mypy")
    package = conftest.PROJECT / "python"
    done = subprocess.run(
        [sys.executable, "-m", "mypy", "--strict", package / "korvane",
         conftest.PROJECT / "tests" / "python" / "typed_program.py"],
        capture_output=True, text=True, env={**os.environ, "MYPYPATH": str(package)}, cwd=package,
    )
    assert done.returncode == 0, done.stdout + done.stderr
