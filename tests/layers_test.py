#!/usr/bin/env python3
"""Fails when a file includes one of a room that its own doesn't stand on.

    layers_test.py [FOLDER_OF_THE_PROJECT]

All may include the public headers. First the test proves on a small tree that it finds what it is
for.
"""

import pathlib
import re
import sys
import tempfile

# What each room of src/ stands on, from the ground up: the table of docs/architecture.md.
ROOMS = {
    "util": set(),
    "link": {"util"},
    "can": {"link", "util"},
    "serial": {"link", "util"},
    "solver": {"util"},
    "update": {"util"},
    "hand": {"link", "solver", "util"},
    "protocol/can": {"can", "hand", "link", "update", "util"},
    "protocol/service": {"can", "hand", "link", "update", "util"},
    "protocol/serial": {"protocol/service", "serial", "hand", "link", "update", "util"},
}
ROOMS["factories"] = set(ROOMS)
OUTSIDE = {"examples", "tools", "python", "ros2"}  # use the library as any program does
SHARED = "tools/common"  # what some of them share, which knows none of them
# For all that are built with the library: mutexes, and nothing of hands.
GUARDED = pathlib.PurePath("src/util/guarded.h")
FOLDERS = {"src", "include", "sim"} | OUTSIDE
SEARCHED = ("src", "include", "sim/src", "sim/include", "tools")
INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*([<"])([^">]+)[">]', re.M)


def area_of(path):
    """Which part of the project a file belongs to: a room of src/, or a name of its own."""
    parts = path.parts
    if parts[0] == "src":
        return "/".join(parts[1:3] if parts[1] == "protocol" else parts[1:2])
    if parts[0] == "sim":
        return "sim/include" if parts[1] == "include" else "sim"
    return SHARED if path.is_relative_to(SHARED) else parts[0]


def may_include(user, used):
    if user in ROOMS:
        return used in ("include", user) or used in ROOMS[user]
    if user == "sim":
        return used in ("sim", "sim/include", "util")
    if user in OUTSIDE:
        return used in ("include", "sim/include", SHARED, user)
    if user == SHARED:
        return used in ("include", SHARED)
    return used == user


def target_of(root, file, quote, name):
    """The file of the project that an include names, relative to the root; None for one of the system."""
    folders = ([file.parent] if quote == '"' else []) + [root / folder for folder in SEARCHED]
    for folder in folders:
        path = (folder / name).resolve()
        if path.is_file() and path.is_relative_to(root):
            return path.relative_to(root)
    return None


def faults_of(root):
    root = root.resolve()
    files = sorted(path for folder in FOLDERS for path in (root / folder).rglob("*") if path.suffix in (".h", ".cpp"))
    for file in files:
        user = area_of(file.relative_to(root))
        if file.is_relative_to(root / "src") and user not in ROOMS:
            yield f"{file.relative_to(root)}: is in none of the rooms"
            continue
        for quote, name in INCLUDE.findall(file.read_text()):
            target = target_of(root, file, quote, name)
            if target and target != GUARDED and not may_include(user, area_of(target)):
                yield f"{file.relative_to(root)}: may not include {target}"


GOOD = {
    "include/korvane.h": "",
    "src/util/text.h": "#include <string>",
    "src/util/guarded.h": "",
    "src/can/bus.h": '#include "util/text.h"\n#include "korvane.h"',
    "src/serial/port.h": '#include "can_of_worms.h"',
    "src/protocol/can/engine.h": '#include "can/bus.h"',
    "sim/src/hand.cpp": '#include "util/text.h"',
    "examples/motion.cpp": "#include <korvane.h>",
    "tools/common/status.h": "#include <korvane.h>",
    "tools/korvane/tool.h": '#include "util/guarded.h"',
    "ros2/options.cpp": '#include "common/status.h"',
}
BAD = {
    "src/util/text.cpp": '#include "can/bus.h"',
    "src/serial/port.cpp": '#include "can/bus.h"',
    "src/can/bus.cpp": '#include "../protocol/can/engine.h"',
    "src/update/run.cpp": '#include "can/bus.h"',
    "include/korvane_types.h": '#include "util/text.h"',
    "sim/src/bus.cpp": '#include "can/bus.h"',
    "sim/src/world.cpp": "#include <korvane.h>",
    "examples/tour.cpp": '#  include "util/text.h"',
    "src/attic/old.cpp": "",
    "ros2/main.cpp": '#include "korvane/tool.h"',
    "tools/common/motion.cpp": '#include "korvane/tool.h"',
}


def all_point_down():
    rooms = list(ROOMS)
    return all(ROOMS[room] <= set(rooms[:place]) for place, room in enumerate(rooms))


def proves_itself():
    with tempfile.TemporaryDirectory() as folder:
        root = pathlib.Path(folder)
        for name, text in {**GOOD, **BAD}.items():
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            (root / name).write_text(text + "\n")
        return {fault.split(":")[0] for fault in faults_of(root)} == BAD.keys()


if not all_point_down():
    sys.exit("a room stands on one above it")
if not proves_itself():
    sys.exit("the test doesn't find what it is for")
faults = list(faults_of(pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")))
print(*faults, sep="\n")
sys.exit(bool(faults))
