"""move, record, replay and bench: what moves a hand, and what keeps and measures what it tells."""

import json
import re
import resource
import shutil
import signal
import subprocess

import pytest
from conftest import LIMIT, command_line

BRISA = ("-H", "zlg:0.0:brisa:1")
TESSEL = ("-H", "zlg:0.0:tessel:2")


def positions(sim, hand=BRISA):
    return sim.korvane("info", "--json", *hand).json["positions"]


def test_motors_joints_gestures_and_poses_are_reached(sim):
    assert sim.korvane("move", *BRISA, "--to", "2000").status == 0
    assert positions(sim) == [2000] * 10
    moved = sim.korvane("move", *BRISA, "--motor", "3=100", "--motor", "10=4000", "--json").json["hands"][0]
    assert moved["positions"] == positions(sim) == [2000, 2000, 100, 2000, 2000, 2000, 2000, 2000, 2000, 4000]
    angles = sim.korvane("move", *BRISA, "--joint", "index_flexion=0.8", "--json").json["hands"][0]["angles"]
    assert angles[6] == pytest.approx(0.8, abs=0.01)
    assert [p for i, p in enumerate(positions(sim)) if i != 4] == [2000, 2000, 100, 2000, 2000, 2000, 2000, 2000, 4000]
    text = sim.korvane("move", *BRISA, "--gesture", "0", "--seconds", "0.2").out
    assert text.startswith("zlg:0.0:brisa:1 stands at ")
    assert sim.korvane("move", *BRISA, "--to", "gesture:3", "--end", "start", "--hold", "0").status == 0
    assert sim.korvane("move", "-H", f"serial:{sim.port}", "--to", "1,2,3,4,5,6,7,8,9,10").status == 0
    assert positions(sim, ("-H", f"serial:{sim.port}")) == list(range(1, 11))


def test_several_hands_move_in_one_command_or_none_does(sim):
    both = (*BRISA, "-H", "hcan:0.0:vanta:5")
    assert sim.korvane("move", *both, "--to", "1500").status == 0
    assert positions(sim) + positions(sim, ("-H", "zlg:0.0:vanta:5")) == [1500] * 30
    # A Brisa has gesture 9, a Tessel hasn't; its positions end at 2000.
    for target in (("--gesture", "9"), ("--to", "3000")):
        refused = sim.korvane("move", *BRISA, *TESSEL, *target)
        assert refused.status == 2 and "tessel" in refused.err
    assert positions(sim) == [1500] * 10


@pytest.mark.parametrize(
    "hand, arguments, status, text",
    [
        (BRISA, ["--to", "4097"], 2, "0 to 4096"),
        (BRISA, ["--to=-1"], 2, "0 to 4096"),
        (BRISA, ["--to", "nan"], 2, "nan"),
        (BRISA, ["--to", "1,2"], 2, "10 motors"),
        (BRISA, ["--to", "up"], 2, "no pose"),
        (BRISA, ["--motor", "11=5"], 2, "motors 1 to 10"),
        (BRISA, ["--motor", "1.5=5"], 2, "motors 1 to 10"),
        (BRISA, ["--motor", "1"], 2, "equals sign"),
        (BRISA, ["--motor", "3=100", "--motor", "03=4000"], 2, "motor 3 is named twice"),
        (BRISA, ["--joint", "thumb_1=0.1", "--joint", "thumb_1=0.2"], 2, "joint thumb_1 is named twice"),
        (BRISA, ["--gesture", "17"], 2, "gestures 0 to 16"),
        (BRISA, ["--to", "gesture:2.9"], 2, "gestures 0 to 16"),
        (BRISA, ["--to", "gesture:-0.5"], 2, "gestures 0 to 16"),
        (BRISA, ["--to", "5", "--end", "gesture:nan"], 2, "gestures 0 to 16"),
        (BRISA, ["--joint", "index_flexion=2"], 2, "limits of index_flexion"),
        (BRISA, ["--joint", "index_distal=0.5"], 2, "coupled"),
        (BRISA, ["--joint", "elbow=0.5"], 2, "thumb_1"),
        (BRISA, [], 2, "where to"),
        (BRISA, ["--gesture", "1", "--to", "5"], 2, "where to"),
        (BRISA, ["--to", "5", "--end", "5000"], 2, "0 to 4096"),
        (TESSEL, ["--joint", "index_flexion=1.35", "--joint", "index_sideways=0.26"], 2, "don't go together"),
        (("-H", "zlg:0.0:tessel:2?side=left"), ["--joint", "thumb_1=0.5"], 2, "can't be commanded"),
        (("-H", "zlg:0.0:quill:3"), ["--to", "5"], 2, "no motors"),
        (("-H", "zlg:0.0:lumen:4"), ["--joint", "thumb_1=0"], 2, "aren't known"),
        (("-H", "zlg:0.0:brisa:2"), ["--to", "5"], 5, "tessel"),
        (("-H", "zlg:0.0:brisa:9"), ["--to", "5"], 4, "no hand"),
    ],
)
def test_what_makes_no_sense_moves_nothing(sim, hand, arguments, status, text):
    before = positions(sim)
    refused = sim.korvane("move", *hand, *arguments)
    assert refused.status == status and text in refused.err, refused
    assert positions(sim) == before


def test_ctrl_c_stops_a_motion_and_tells_where_the_hand_stands(sim, tmp_path):
    sim.korvane("move", *BRISA, "--to", "0")
    frames = tmp_path / "frames.log"
    watcher = sim.start("record", "-H", "hcan:0.0:brisa:1", "--frames", "-o", frames)
    # More frames than it takes to open the hand.
    stopped = sim.interrupt("move", *BRISA, "--to", "4096", "--seconds", "30", "--json", after=frames, size=5000)
    watcher.send_signal(2)
    watcher.communicate()
    hand = stopped.json["hands"][0]
    assert stopped.status == 130 and stopped.json["interrupted"]
    assert max(hand["positions"]) < 2000


@pytest.mark.parametrize("form", ["csv", "jsonl"])
def test_a_recording_is_played_as_it_was(sim, tmp_path, form):
    file = tmp_path / f"recording.{form}"
    sim.korvane("move", *BRISA, "--to", "1000")
    told = sim.korvane("record", *BRISA, "-o", file, "--format", form, "--seconds", "0.3", "--rate", "100",
                       "--timeout", "1000", "--json").json
    sim.korvane("move", *BRISA, "--to", "3000")
    assert told["samples"] > 0 and told["lost"] == 0
    played = sim.korvane("replay", file, *BRISA, "--json", "--speed", "3").json
    assert played["hands"][0]["positions"] == [1000] * 10
    # On another model by the names of the joints, within its limits.
    assert sim.korvane("replay", file, *TESSEL).status == 0
    lumen = ("-H", "zlg:0.0:lumen:4")
    sim.korvane("move", *lumen, "--to", "2000")
    assert sim.korvane("replay", file, *lumen, "--map", "1=2", "--check").status == 0
    assert positions(sim, lumen) == [2000] * 4
    checked = sim.korvane("replay", file, *BRISA, "--check", "--json").json
    times = [float(time) for time in re.findall(r'^(?:{"time_s":)?(\d[\d.e-]*)', file.read_text(), re.M)]
    assert checked["samples"] == told["samples"] == len(times)
    assert checked["seconds"] == pytest.approx(times[-1] - times[0], abs=1e-5)
    assert sim.korvane("replay", file, *lumen, "--map", "1=2").status == 0
    assert positions(sim, lumen) == [2000, 1000, 2000, 2000]
    for pair in ("1.5=2", "1=2.9", "0=1", "1=5", "11=1", "1"):
        refused = sim.korvane("replay", file, *lumen, "--map", pair)
        assert refused.status == 2 and "expected RECORDED=MOTOR" in refused.err, pair
    refused = sim.korvane("replay", file, *lumen, "--map", "1=3,2=3")
    assert refused.status == 2 and "motor 3 is named twice" in refused.err
    assert f"{tmp_path} is a folder" in sim.korvane("replay", tmp_path, *lumen).err


def test_a_worn_quill_is_played_on_a_brisa(sim, tmp_path):
    file = tmp_path / "quill.csv"
    sim.korvane("record", "-H", "zlg:0.0:quill:3", "-o", file, "--seconds", "0.2")
    last = [int(text) for text in file.read_text().splitlines()[-1].split(",")[1:11]]
    assert sim.korvane("replay", file, *BRISA).status == 0
    assert positions(sim) == last


HEAD = '# {"korvane_recording":1,"model":"brisa","side":"right","rate_hz":50,"quantities":["positions"]}\n'
COLUMNS = "time_s," + ",".join(f"positions_{i}" for i in range(1, 11)) + "\n"
ROW = ",1" * 10 + "\n"


@pytest.mark.parametrize(
    "content, text",
    [
        ("", "empty"),
        ("time_s\n", "line 1: that is no recording"),
        ('{"a":1}\n', "no recording"),
        (HEAD.replace("brisa", "elbow") + COLUMNS + "0" + ROW, "no model elbow"),
        (HEAD.replace('"korvane_recording":1', '"korvane_recording":2') + COLUMNS, "later version"),
        (HEAD, "columns are missing"),
        (HEAD + COLUMNS, "no sample"),
        (HEAD + COLUMNS + "0,1,2\n", "line 3: it has fewer"),
        (HEAD + COLUMNS + "0" + ROW.replace("\n", ",7\n"), "line 3: it has more"),
        (HEAD + COLUMNS + "0" + ROW + "1,x" + ROW[2:], '"x" is no number'),
        (HEAD + COLUMNS + "2" + ROW + "1" + ROW, "line 4: its time"),
        (HEAD[2:] + '{"time_s":0,"positions":[1]}\n{"time_s":1,"positions":[1,2]}\n', "another number"),
        (HEAD[2:] + '{"time_s":0}\n', "positions"),
        pytest.param(HEAD[2:] + '{"time_s":0,"positions":' + "[" * 200000 + "]" * 200000 + "}\n", "line 2", id="deep"),
        pytest.param(HEAD + COLUMNS + "0," + "[" * 200000 + "]" * 200000 + ROW[2:], "is no number", id="deep cell"),
        ((HEAD + COLUMNS).replace("positions", "velocities") + "0" + ROW, "no positions"),
    ],
)
def test_a_recording_that_is_wrong_in_any_way_moves_nothing(sim, tmp_path, content, text):
    file = tmp_path / "wrong"
    file.write_text(content)
    before = positions(sim)
    refused = sim.korvane("replay", file, *BRISA)
    assert refused.status == 2 and text in refused.err, refused
    assert positions(sim) == before


def test_frames_are_those_that_can_utils_read(sim, tmp_path):
    file = tmp_path / "frames.log"
    recorder = sim.start("record", *BRISA, "--frames", "-o", file)
    while not (file.exists() and file.stat().st_size):
        sim.korvane("info", "-H", "hcan:0.0:brisa:1")
    recorder.send_signal(2)
    assert "frames in" in recorder.communicate()[0] and recorder.returncode == 0
    if shutil.which("log2asc"):
        asc = subprocess.run(["log2asc", "-I", file, "can0"], capture_output=True, text=True)
        assert asc.stdout.count("CANFD") == len(file.read_text().splitlines())


def test_frames_have_the_digits_of_their_kind(make_sim, tmp_path):
    sim = make_sim("--hand=brisa:1", serial=False)
    file = tmp_path / "frames.log"
    recorder = sim.start("record", *BRISA, "--frames", "-o", file)
    while not (file.exists() and " 009##1" in file.read_text()):
        sim.korvane("service", "get", "power", "-H", "hcan:0.0:brisa:1")
        assert recorder.poll() is None
    recorder.send_signal(signal.SIGINT)
    recorder.communicate(timeout=LIMIT)
    identifiers = {line.split()[2].split("##")[0] for line in file.read_text().splitlines()}
    assert {len(identifier) for identifier in identifiers} == {3, 8}


def test_a_recording_may_last_longer_than_a_clock_can_count(sim, tmp_path):
    file = tmp_path / "long.csv"
    assert sim.interrupt("record", *BRISA, "--seconds", "1e12", "-o", file, after=file).status == 130


@pytest.mark.parametrize("what", [[], ["--frames"]])
def test_a_full_disk_ends_a_recording(sim, what):
    other = sim.start("watch", "-H", "hcan:0.0:brisa:1", "--csv")  # so that there are frames
    with open("/dev/full", "w") as full:
        done = sim.start("record", *BRISA, *what, stdout=full)
        assert "No space left" in done.communicate()[1] and done.returncode == 1
    other.kill()
    other.communicate()


@pytest.mark.parametrize("hand", ["zlg:0.0:brisa:1", "serial", "hcan:0.0:quill:3"])
def test_bench_counts_every_request_and_compares(sim, tmp_path, hand):
    address = sim.address("serial") if hand == "serial" else hand
    writes = [] if "quill" in hand else ["--writes"]
    file = tmp_path / "bench.json"
    told = sim.korvane("bench", "-H", address, "--count", "20", "--json", "--save", file, *writes).json
    assert ("whole_write" in told) == bool(writes)
    for key in ("single_read", "whole_read"):
        assert told[key]["count"] == 20 and told[key]["p50_us"] <= told[key]["p99_us"] <= told[key]["max_us"]
    again = sim.korvane("bench", "-H", address, "--count", "20", "--compare", file)
    assert again.status == 0 and "%)" in again.out
    deep = '{"single_read":' + "[" * 100000 + "]" * 100000 + "}"
    for text in ("", "[]", '{"whole_read":{}}', '{"single_read":{"p50_us":"x"}}', '{"single_read":[]}', deep):
        file.write_text(text)
        refused = sim.korvane("bench", "-H", address, "--compare", file)
        assert (refused.status, refused.out) == (2, "") and "holds no figures" in refused.err


def test_bench_counts_what_is_lost(make_sim):
    sim = make_sim("--hand=brisa:1", "--silent-after=10", serial=False)
    told = sim.korvane("bench", "-H", sim.address("zlg"), "--count", "100", "--timeout", 50)
    assert told.status == 4 and " 20 " in told.out  # as many in a row, and it gives up


#: What writes a file, which comes last.
WRITERS = {
    "record": ["record", "--seconds", "0.1", "-o"],
    "bench": ["bench", "--count", "10", "--save"],
    "export": ["service", "export"],
}
REPLACING = ("bench", "export")


@pytest.fixture
def write(sim):
    def run(writer, file, *options):
        return sim.korvane(*WRITERS[writer], file, "-H", sim.address("serial"), *options)

    return run


@pytest.mark.parametrize("writer", WRITERS)
def test_a_file_is_replaced_only_if_that_is_wished(write, tmp_path, writer):
    file, link = tmp_path / "file", tmp_path / "link"
    link.symlink_to(file)
    assert write(writer, file).status == 0
    first = file.read_text()
    file.write_text("old")
    file.chmod(0o640)
    kept = write(writer, link)
    assert kept.status == 2 and "--overwrite" in kept.err and file.read_text() == "old"
    assert write(writer, link, "--overwrite").status == 0
    assert file.read_text()[:10] == first[:10] and link.is_symlink() and file.stat().st_mode & 0o777 == 0o640
    assert sorted(tmp_path.iterdir()) == [file, link]


@pytest.mark.parametrize("writer", WRITERS)
@pytest.mark.parametrize(
    "file, reason", [("/nowhere/file", "No such file"), ("/dev/full", "No space left"), ("/", "s a directory")]
)
def test_a_file_that_cannot_be_written_is_told(write, writer, file, reason):
    done = write(writer, file)
    assert done.status == 1 and f"{file} can't be written: " in done.err and reason in done.err


def allow_no_files():
    signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
    resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0))


@pytest.mark.parametrize("writer", REPLACING)
def test_a_file_stays_until_the_new_one_is_whole(sim, tmp_path, writer):
    file = tmp_path / "file"
    file.write_text("old")
    line = command_line([*WRITERS[writer], file, "-H", sim.address("serial"), "--overwrite", "--json"])
    done = subprocess.run(line, capture_output=True, text=True, timeout=LIMIT, env=sim.env, preexec_fn=allow_no_files)
    told = json.loads(done.stdout)
    assert done.returncode == told["error"]["status"] == 1 and "too large" in done.stderr
    assert file.read_text() == "old" and list(tmp_path.iterdir()) == [file]
    assert ("whole_read" in told) == (writer == "bench")  # what was measured isn't lost


@pytest.mark.parametrize(
    "options, says",
    [
        (["--values", "typo"], "typo"),
        (["--values", "positions,positions"], "positions is named twice"),
        (["--values", "temperatures,touch,angles", "--format", "candump"], "no format"),
        (["--report-period", 5], "needs no reports"),
        (["--frames"], "jsonl"),
    ],
)
@pytest.mark.parametrize("content", [None, "old"])
def test_a_recording_that_makes_no_sense_leaves_files_alone(write, tmp_path, options, says, content):
    file = tmp_path / "file"
    if content:
        file.write_text(content)
    done = write("record", file, "--overwrite", *options)
    assert done.status == 2 and says in done.err
    assert (file.read_text() if file.exists() else None) == content


@pytest.mark.parametrize("writer", REPLACING)
def test_a_pipe_is_no_file_to_replace(write, writer):
    assert json.loads(write(writer, "/dev/stdout", "-q").out)
