"""What the documents show works: every block of Python in the page, in order, and the examples."""

import os
import re
import subprocess
import sys

import conftest
import pytest

PAGE = conftest.PROJECT / "docs" / "python.md"
README = conftest.PROJECT / "README.md"
EXAMPLES = conftest.PROJECT / "python" / "examples"


@pytest.mark.parametrize("page, least", [(PAGE, 6), (README, 1)], ids=lambda value: getattr(value, "name", ""))
def test_every_block_of_the_page(page, least, tmp_path, monkeypatch, capfd):
    import korvane

    blocks = list(re.finditer(r"^```python\n(.*?)^```", page.read_text(), re.M | re.S))
    assert len(blocks) >= least
    for attempt in range(3):
        (folder := tmp_path / str(attempt)).mkdir()
        monkeypatch.chdir(folder)
        try:
            return run(page, blocks, capfd)
        except korvane.NoReply:  # a busy machine keeps a reply for longer than the page waits
            capfd.readouterr()
    pytest.fail("the hands of the page don't answer")


def run(page, blocks, capfd):
    names = {}
    text = page.read_text()
    for block in blocks:
        line = text.count("\n", 0, block.start()) + 1
        exec(compile("\n" * line + block[1], page.name, "exec"), names)
        out, err = capfd.readouterr()
        assert err == ""
        for said in re.findall(r"print\(.*\) +# (?:serial:.*?:)?(\[.*\]|brisa.*)$", block[1], re.M):
            assert said in out
    assert page is README or len(names["grasp"]) > 10


def test_the_table_names_what_there_is():
    import korvane
    from korvane import service

    table = PAGE.read_text().split("## C++ and Python")[1]
    classes = ("Hand", "Brisa", "Tessel", "Quill", "Model", "Address", "KorvaneError")
    known = [korvane, service.Service, *(getattr(korvane, name) for name in classes)]
    for row in re.findall(r"^\| .* \| (.*) \|$", table, re.M):
        for name in re.findall(r"`([\w.]+)(?:\(s\))?`", row):
            last = name.split(".")[-1]
            fields = {key for owner in known for key in (*dir(owner), *getattr(owner, "__annotations__", ()))}
            assert last in fields, name


def example(name, *arguments):
    return subprocess.run(
        [sys.executable, EXAMPLES / name, *map(str, arguments)],
        capture_output=True, text=True, timeout=conftest.LIMIT, env=os.environ,
    )


def test_examples(tmp_path):
    import korvane

    with korvane.simulated() as hand, korvane.record(hand, tmp_path / "r.csv", values=["positions"]):
        hand.move(gesture=3, seconds=0.2)
    done = example("play_recording.py", tmp_path / "r.csv", "--speed", 2)
    assert done.returncode == 0 and "the end was met" in done.stdout, done.stderr
    done = example("play_recording.py", tmp_path / "r.csv", "serial:/nowhere")
    assert done.returncode == 1 and "no such port" in done.stderr and "Traceback" not in done.stderr
    pytest.importorskip("matplotlib")
    done = example("live_view.py", "--seconds", 0.5, "--save", tmp_path / "picture.png")
    assert done.returncode == 0 and (tmp_path / "picture.png").stat().st_size > 10_000, done.stderr
