#!/usr/bin/env python3
"""Figures of korvane-ros2 against simulated hands and another process of DDS, on this machine.

    unshare -rn sh -c 'ip link set lo up; KORVANE_BUILD=build/release python3 benchmarks/ros2_bench.py [SECONDS]'

needs a build with KORVANE_BUILD_TESTS. Latency is that of DDS, from the writer's time stamp to the reader's callback.
"""

import json
import os
import pathlib
import sys
import tempfile
import time

TESTS = pathlib.Path(__file__).resolve().parent.parent / "tests"
sys.path[:0] = [str(TESTS / "ros2"), str(TESTS)]
import conftest  # noqa: E402: it says how programs are started

SECONDS = float(sys.argv[1]) if len(sys.argv) > 1 else 10
HAND = "/korvane/right"
TICK = os.sysconf("SC_CLK_TCK")


def cpu_of(process):
    fields = pathlib.Path(f"/proc/{process.process.pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def memory_of(process):
    status = pathlib.Path(f"/proc/{process.process.pid}/status").read_text()
    return {line.split(":")[0]: line.split(":")[1].strip() for line in status.splitlines()
            if line.startswith(("VmRSS", "Threads"))}


def measure(name, options, topics, writers=0, hands=("brisa:1@0.0",)):
    with tempfile.TemporaryDirectory() as folder:
        setup = conftest.Setup(folder)
        try:
            setup.adapters("--adapter-count", "3", *[f"--hand={hand}" for hand in hands])
            began = time.monotonic()
            bridge = setup.bridge(*options)
            started = time.monotonic() - began
            peer = setup.peer(*topics)
            for number in range(writers):
                topic = f"{HAND}{number if number else ''}/joint_commands"
                peer.writer(topic, name=f"w{number}")
                peer.matched(topic)
                peer.order("joints", f"w{number}", 0, "right_index_flexion=0.5")
                peer.order("repeat", f"w{number}", 1000)
            if topics:
                peer.message(topics[0].split("=")[0])
            first, used = len(peer.lines), cpu_of(bridge)
            began = time.monotonic()
            time.sleep(SECONDS)
            took = time.monotonic() - began
            share = (cpu_of(bridge) - used) / took
            messages = [json.loads(line) for line in peer.lines[first:]]
            late = sorted(m["late_us"] for m in messages if m.get("topic", "").endswith("joint_states"))
            row = {"what": name, "cpu_percent": round(100 * share, 1), "start_s": round(started, 2),
                   **memory_of(bridge)}
            if late:
                row.update(messages_s=round(len(late) / took, 1), p50_us=round(late[len(late) // 2]),
                           p99_us=round(late[int(len(late) * 0.99)]))
            statuses = [m for m in messages if m.get("topic") == "/diagnostics"]
            if statuses:
                row["diagnostics"] = {key: statuses[-1]["status"][0][key]
                                      for key in ("accepted", "superseded", "late_cycles", "refused_old")}
            print(json.dumps(row), flush=True)
        finally:
            setup.end()


five = [f"brisa:1@{place}" for place in ("0.0", "0.1", "1.0", "1.1", "2.0")]
spaces = [f"zlg:{hand.split('@')[1]}:brisa:1={HAND}{number or ''}" for number, hand in enumerate(five)]
five_options = [word for space in spaces for word in ("-H", space)]
print(json.dumps({"load": os.getloadavg(), "processors": os.cpu_count(), "seconds": SECONDS}), flush=True)
measure("idle: 1 hand at 1 Hz, nobody listens", ["-H", "zlg:0.0:brisa:1", "--rate", "1"], [])
measure("1 hand at 100 Hz, nobody listens", ["-H", "zlg:0.0:brisa:1", "--rate", "100"], [])
measure("1 hand at 100 Hz, joint_states", ["-H", "zlg:0.0:brisa:1", "--rate", "100"], [f"{HAND}/joint_states=joints"])
measure("5 hands at 100 Hz, joint_states and 5 writers of 1 kHz",
        [*five_options, "--rate", "100", "--allow-commands"],
        [*[f"{HAND}{number or ''}/joint_states=joints" for number in range(5)], "/diagnostics=diagnostics"],
        writers=5, hands=five)
