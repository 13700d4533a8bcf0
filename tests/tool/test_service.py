"""service: settings, files of them, serial numbers and ids, and what is refused."""

import json

import pytest

LINKS = {"zlg": "zlg:0.0:brisa:1", "hcan": "hcan:0.0:brisa:1", "serial": "serial:{port}", "lumen": "zlg:0.1:lumen:4"}


@pytest.fixture
def hands(make_sim):
    """A Brisa beside a Tessel, which has no service interface, and a Lumen on another bus."""
    sim = make_sim("--hand=brisa:1@0.0", "--hand=tessel:2@0.0", "--hand=lumen:4@0.1")

    def service(link, *arguments):
        address = LINKS.get(link, link).format(port=sim.port)
        return sim.korvane("service", *arguments, "-H", address)

    return service


@pytest.mark.parametrize("link", LINKS)
def test_report_tells_all_that_can_be_read(hands, link):
    report = hands(link, "report", "--json")
    told = report.json
    axes = 4 if link == "lumen" else 10
    assert report.status == 0 and "failures" not in told, told
    for key in ("positions", "actual_positions", "velocities", "temperatures", "lower_limit", "upper_limit"):
        assert len(told[key]) == axes
    assert told["power"] == 1 and told["serial_number"].startswith("SIM")
    assert ("sensor_7" in told) == (link != "lumen")
    assert ("forces" in told) == ("control_mode" in told) == (link in ("zlg", "hcan"))
    text = hands(link, "report").out
    assert len([line for line in text.splitlines() if line.split()[:2] == [str(axes), str(4096)]]) == 1


@pytest.mark.parametrize(
    "link, arguments, status, says",
    [
        ("zlg", ["get", "nonsense"], 2, "lower_limit"),
        ("zlg", ["get", "homing"], 2, "can't be read"),
        ("serial", ["get", "control_mode"], 2, "can't be read"),
        ("zlg", ["set", "overload_torque", 256], 2, "one byte"),
        ("lumen", ["set", "overload_time", 300], 2, "one byte"),
        ("serial", ["set", "overload_torque", 1001], 2, "0 to 1000"),
        ("zlg", ["set", "homing", -4096], 2, "-4095 to 4095"),
        ("zlg", ["set", "upper_limit", "9" * 20], 2, "not " + "9" * 20),
        ("zlg", ["set", "upper_limit", "0x10"], 2, "not 0x10"),
        ("zlg", ["set", "power", 0, "--axis", 1], 2, "single axes"),
        ("lumen", ["set", "lower_limit", 1, "--axis", 5], 2, "1 to 4"),
        ("lumen", ["set", "control_mode", 1], 2, "has no control_mode"),
        ("zlg:0.0:tessel:2", ["report"], 1, "no service interface"),
        ("zlg:0.0:lumen:1", ["clear-errors"], 5, "brisa with id 1"),
        ("zlg:0.0:brisa:9", ["save"], 4, ""),
        ("serial:/nowhere", ["clear-limits"], 3, "/nowhere"),
        ("zlg", ["serial-number", "A" * 20, "-y"], 2, "1 to 19"),
        ("zlg", ["serial-number", "", "-y"], 2, "1 to 19"),
        ("zlg", ["serial-number", "A"], 2, "--yes"),
        ("zlg", ["id", 5], 2, "--yes"),
        ("zlg", ["id", 128, "-y"], 2, "1 to 127"),
        ("zlg", ["id", "0x05", "-y"], 2, "0x05"),
        ("zlg", ["id", 2, "-y"], 1, "a tessel answers under it"),
    ],
)
def test_refuses(hands, link, arguments, status, says):
    done = hands(link, *arguments)
    assert (done.status, done.out) == (status, ""), done
    assert says in done.err


def test_refuses_a_bus_where_several_hands_would_listen(sim):
    done = sim.korvane("service", "save", "-H", sim.address("zlg"))
    assert done.status == 6 and "zlg:0.0:brisa:1, zlg:0.0:lumen:4" in done.err


@pytest.mark.parametrize(
    "link, key, value, axis, read_back",
    [
        ("zlg", "lower_limit", "0100", 3, True),
        ("serial", "upper_limit", 4000, 10, True),
        ("lumen", "upper_limit", 4000, 4, True),
        ("hcan", "current_threshold", 700, 2, True),
        ("zlg", "control_mode", 1, None, True),
        ("serial", "control_source", 1, None, True),
        ("zlg", "homing", -5, 1, False),
        ("serial", "overload_torque", 1000, 1, False),
        ("lumen", "overload_torque", 255, 4, False),
        ("zlg", "run_speed", -1, None, False),
    ],
)
def test_sets_and_reads_back(hands, link, key, value, axis, read_back):
    only = [] if axis is None else ["--axis", axis]
    done = hands(link, "set", key, *only, "--json", "--save", value)
    assert done.status == 0, done.err
    told, value = done.json, int(value)
    assert (told["value"], told["axis"], told["read_back"], told["saved"]) == (value, axis, read_back, True)
    if read_back:
        values = hands(link, "get", key, "--json").json["values"]
        changed = [i + 1 for i, v in enumerate(values) if v == value]
        assert changed == ([axis] if axis else list(range(1, len(values) + 1)))


def test_tells_what_a_hand_refuses(hands):
    assert hands("zlg", "set", "upper_limit", 1000, "--axis", 1).status == 0
    for link in ("zlg", "serial"):
        hands(link, "set", "upper_limit", 1000, "--axis", 1)
        refused = hands(link, "set", "lower_limit", 2000, "--axis", 1, "--json")
        assert refused.status == 1 and refused.json["error"]["status"] == 1


@pytest.mark.parametrize("link", LINKS)
def test_files_are_compared_and_applied(hands, tmp_path, link):
    file = tmp_path / "settings.json"
    assert hands(link, "export", file).status == 0
    assert hands(link, "diff", file).status == 0
    wanted = json.loads(file.read_text())
    # Both ways past each other: neither order of lower and upper would do for all.
    wanted["settings"]["lower_limit"][:2] = [3000, 10]
    wanted["settings"]["upper_limit"][:2] = [3500, 20]
    file.write_text(json.dumps(wanted))
    first = hands(link, "apply", file, "-y", "--json", "--save")
    assert first.status == 0 and len(first.json["changed"]) == 4 and first.json["saved"], first
    wanted["settings"]["lower_limit"][:2] = [10, 3000]
    wanted["settings"]["upper_limit"][:2] = [20, 3500]
    file.write_text(json.dumps(wanted))
    differences = hands(link, "diff", file, "--json")
    assert (differences.status, len(differences.json["differences"])) == (1, 4)
    second = hands(link, "apply", file, "-y")
    assert second.status == 0 and second.out.count("\n") == 5 and "NOT" not in second.out, second
    assert hands(link, "diff", file).status == 0


def test_apply_tells_what_was_written_when_the_hand_falls_silent(make_sim, tmp_path):
    sim = make_sim("--hand=brisa:1@0.0")
    file = tmp_path / "settings.json"
    address = ["-H", "serial:" + sim.port]
    assert sim.korvane("service", "export", file, *address).status == 0
    wanted = json.loads(file.read_text())
    wanted["settings"]["lower_limit"] = [7] * 10
    file.write_text(json.dumps(wanted))
    sim.stop()
    # Enough to be opened and read, and not enough for ten values.
    sim = make_sim("--serial-unplug-after=12")
    done = sim.korvane("service", "apply", file, "-y", "--json", "-H", "serial:" + sim.port)
    told = done.json
    assert done.status not in (0, 2)
    assert len(told["changed"]) + len(told["not_changed"]) == 10
    assert told["changed"] and told["not_changed"], told
    assert f"{len(told['changed'])} values were written and {len(told['not_changed'])} not" in done.err


@pytest.mark.parametrize(
    "change, says",
    [
        (lambda f: f.update(format="other"), "format"),
        (lambda f: f.update(version=2), "version"),
        (lambda f: f.update(model="lumen"), "for a lumen"),
        (lambda f: f.update(model="tessel"), "no model"),
        (lambda f: f.update(more=1), "more"),
        (lambda f: f.pop("settings"), "missing"),
        (lambda f: f.update(settings={}), "no settings"),
        (lambda f: f["settings"].update(homing=[0] * 10), "homing"),
        (lambda f: f["settings"].update(power=1), "power"),
        (lambda f: f["settings"].update(nonsense=1), "nonsense"),
        (lambda f: f["settings"].update(lower_limit=[0] * 9), "10 numbers"),
        (lambda f: f["settings"].update(lower_limit=[0] * 9 + [4097]), "4097"),
        (lambda f: f["settings"].update(lower_limit=[0] * 9 + [2**64 - 1]), str(2**64 - 1)),
        (lambda f: f["settings"].update(lower_limit=[0] * 9 + [1.5]), "1.5"),
        (lambda f: f["settings"].update(lower_limit=[0] * 9 + [4096], upper_limit=[4095] * 10), "axis 10"),
        (lambda f: f["settings"].pop("upper_limit"), "pairs"),
        (lambda f: f["settings"].update(control_source=None), "control_source"),
    ],
)
def test_a_wrong_file_is_refused_whole(hands, tmp_path, change, says):
    file = tmp_path / "settings.json"
    hands("zlg", "export", file)
    wanted = json.loads(file.read_text())
    wanted["settings"]["control_source"] = 1  # stands first: would be written if anything were
    change(wanted)
    file.write_text(json.dumps(wanted))
    for command in (["apply", "-y"], ["diff"]):
        done = hands("zlg", *command, file)
        assert (done.status, done.out) == (2, "") and says in done.err
    assert hands("zlg", "get", "control_source").out == "0\n"


@pytest.mark.parametrize("text", ["", "{", "[]", '{"format": 1, "format": 1}', None])
def test_no_file_of_settings(hands, tmp_path, text):
    file = tmp_path / "settings.json"
    if text is not None:
        file.write_text(text)
    assert hands("zlg", "apply", file, "-y").status == 2


@pytest.mark.parametrize("key", ["format", "version", "model", "settings"])
def test_a_file_that_is_nested_deeply_is_refused(hands, tmp_path, key):
    file = tmp_path / "settings.json"
    content = {"format": '"korvane settings"', "version": "1", "model": '"brisa"', "settings": '{"power": 1}'}
    content[key] = "[" * 80000 + "]" * 80000
    file.write_text("{" + ", ".join(f'"{k}": {v}' for k, v in content.items()) + "}")
    refused = hands("zlg", "diff", file)
    assert refused.status == 2 and "nested too deeply" in refused.err


@pytest.mark.parametrize("link", LINKS)
def test_serial_number_and_clearing(hands, link):
    written = hands(link, "serial-number", "KB-2026-00017", "-y", "--json", "--save").json
    assert written["serial_number"] == "KB-2026-00017" and written["before"].startswith("SIM")
    assert hands(link, "serial-number").out == "KB-2026-00017\n"
    hands(link, "set", "upper_limit", 1000)
    for command in ("clear-errors", "clear-limits", "save"):
        assert hands(link, command).status == 0
    assert set(hands(link, "get", "upper_limit", "--json").json["values"]) == {4096}


@pytest.mark.parametrize("address", ["zlg:0.0:tessel", "hcan:0.0:brisa", "zlg:0.1", "serial:{port}"])
def test_id_is_asked_under_the_new_one(hands, address):
    given = hands(address, "id", 77, "-y", "--json")
    assert given.status == 0 and given.json["id"] == 77, given
    place = address if "serial" in address else address + ":77"
    assert hands(place, "id", 77, "-y", "--json").json["before"] == 77
