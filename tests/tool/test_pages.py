"""What is made from the tool itself, for the shell and for man, leaves no option out."""

import re
import shutil
import subprocess

import pytest
from conftest import BUILD, TOOL

OPTION = re.compile(r"(?<![\w-])--?[a-zA-Z][\w-]*")


def help_of(*command):
    return subprocess.run([TOOL, *command, "--help"], capture_output=True, text=True, check=True).stdout


def commands_in(text):
    part = re.search(r"^Subcommands:\n((?:  .*\n)+)", text, re.M)
    return re.findall(r"^  (\w[\w-]*) ", part[1], re.M) if part else []


def every_command(*path):
    yield path
    for name in commands_in(help_of(*path)):
        if name != "sim":  # whose options are korvane-sim's
            yield from every_command(*path, name)


def options_of(*command):
    names = [line.split("  ")[1] for line in help_of(*command).splitlines() if line.startswith("  -")]
    return {option for name in names for option in OPTION.findall(name)}


def completed(*words):
    script = f"""
source <("{TOOL}" completion)
COMP_WORDS=(korvane "$@" "")
COMP_CWORD=$(($# + 1))
_korvane
echo "${{COMPREPLY[@]}}"
"""
    done = subprocess.run(["bash", "-c", script, "bash", *words], capture_output=True, text=True, check=True)
    return set(done.stdout.split())


@pytest.mark.parametrize("command", list(every_command()), ids=" ".join)
def test_the_completion_knows_every_option_and_command(command):
    offered = completed(*command)
    assert options_of(*command) | set(commands_in(help_of(*command))) <= offered
    # Behind an option, too, whose value isn't taken for a command.
    if "--hand" in offered:
        assert completed(*command, "--hand", "can0:brisa:1") == offered


def test_the_manual_page_knows_every_option():
    page = BUILD / "tools" / "korvane" / "korvane.1"
    if not page.exists():
        pytest.skip("built without help2man")
    text = page.read_text().replace("\\-", "-").replace("\\fB", "").replace("\\fR", "")
    for command in every_command():
        assert not command or re.search(rf"^{' '.join(command)}$", text, re.M), command
        for option in options_of(*command):
            assert re.search(rf"(?<![\w-]){option}(?![\w-])", text), (command, option)


def test_a_simulator_that_is_not_there_is_told_with_its_package(tmp_path):
    alone = shutil.copy(TOOL, tmp_path)  # which looks beside itself, and then in PATH
    told = subprocess.run([alone, "sim"], capture_output=True, text=True, env={"PATH": str(tmp_path)})
    assert told.returncode == 1 and "install korvane-tools" in told.stderr
