#!/usr/bin/env python3
"""What a call costs in Python beside the same call in C++, in one run: both of a simulated Tessel.

usage: python_call.py BUILD_FOLDER [PROGRAM]    PROGRAM is python_call, by default that of the build folder

`temperatures` are a Tessel's last report, for which nobody is asked: that is what the way through Python costs,
with an array of 12 values made. The others ask the simulated hand, behind the stand-in of an adapter library, and
take what another process takes. The least of several rounds in which the two take turns, each the least mean of
batches of 100 calls.
"""

import ctypes
import math
import os
import pathlib
import subprocess
import sys
import tempfile
import time

ROUNDS = 5
BATCHES = 20
BATCH = 100


def rounds_in_cpp(program, address):
    out = subprocess.run([program, address, str(BATCHES)], check=True, capture_output=True, text=True).stdout
    return {name: float(seconds) for name, seconds in map(str.split, out.splitlines())}


def seconds_of(call, batches):
    least = math.inf
    for _ in range(batches):
        begin = time.perf_counter()
        for _ in range(BATCH):
            call()
        least = min(least, time.perf_counter() - begin)
    return least / BATCH


def rounds_in_python(korvane, address):
    with korvane.open(address, korvane.Tessel) as hand:
        hand.reply_timeout_ms = 1000
        hand.set_temperature_periods([5] * 12)
        while True:
            try:
                hand.temperatures()
                break
            except korvane.NoReply:
                pass
        hand.set_temperature_periods([0] * 12)
        return {
            "temperatures": seconds_of(hand.temperatures, BATCHES * 20),
            "positions": seconds_of(hand.positions, BATCHES),
            "set_positions": seconds_of(lambda: hand.set_positions([1000] * 12), BATCHES),
        }


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    program = sys.argv[2] if len(sys.argv) > 2 else build / "benchmarks" / "python_call"
    sys.path.insert(0, str(build / "python"))
    ctypes.CDLL(str(build / "standin" / "libusbcanfd.so"), mode=os.RTLD_GLOBAL)
    import korvane

    os.environ["LD_LIBRARY_PATH"] = str(build / "standin")
    with tempfile.TemporaryDirectory() as folder:
        os.environ["KORVANE_SIM_SOCKET"] = f"{folder}/sim.sock"
        command = [build / "bin" / "korvane-sim", "--adapters", "--hand=tessel:2"]
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as sim:
            while not sim.stdout.readline().startswith("korvane-sim: ready"):
                pass
            address = "zlg:0.0:tessel:2"
            turns = [(rounds_in_cpp(program, address), rounds_in_python(korvane, address)) for _ in range(ROUNDS)]
            sim.terminate()
    print(f"{'':16}{'C++':>10}{'Python':>10}{'more':>10}   microseconds")
    for name in turns[0][0]:
        cpp, python = (min(turn[side][name] for turn in turns) * 1e6 for side in (0, 1))
        print(f"{name:16}{cpp:10.2f}{python:10.2f}{python - cpp:10.2f}")


if __name__ == "__main__":
    main()
