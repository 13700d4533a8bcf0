#!/usr/bin/env python3
"""How large the library is, and what including its headers costs a compilation, as a table.

    benchmarks/footprint.py BUILD_FOLDER [--runs N]

The files take turns within each run. korvane_open.h brings all that opens and moves a hand of any model;
the baselines are an empty file and <iostream>.
"""

import argparse
import os
import pathlib
import re
import statistics
import subprocess
import tempfile
import time

SOURCES = {
    "an empty file": "",
    "<iostream>": "#include <iostream>\n",
    "korvane_brisa.h": "#include <korvane_brisa.h>\n",
    "korvane_open.h": "#include <korvane_open.h>\n",
    "korvane_open.h and <iostream>": "#include <korvane_open.h>\n#include <iostream>\n",
}


def compiler_of(build):
    return re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", (build / "CMakeCache.txt").read_text(), re.M).group(1)


def print_sizes(build, folder):
    library = (build / "libkorvane.so").resolve()
    stripped = folder / "stripped"
    subprocess.run(["strip", "--strip-unneeded", "-o", stripped, library], check=True)
    said = subprocess.run(["size", stripped], check=True, capture_output=True, text=True).stdout
    sections = said.splitlines()[1].split()
    print("| KiB | as built | stripped | code and constants | data |\n|---|---|---|---|---|")
    numbers = [library.stat().st_size, stripped.stat().st_size, int(sections[0]), int(sections[1]) + int(sections[2])]
    print("| libkorvane.so | " + " | ".join(f"{number / 1024:.0f}" for number in numbers) + " |\n")


def seconds_of(command):
    began = os.times()
    start = time.perf_counter()
    subprocess.run(command, check=True)
    ended = os.times()
    return time.perf_counter() - start, sum(ended[2:4]) - sum(began[2:4])


def print_compile_times(compiler, folder, runs):
    include = pathlib.Path(__file__).resolve().parent.parent / "include"
    times = {name: [] for name in SOURCES}
    for _ in range(runs):
        for number, (name, text) in enumerate(SOURCES.items()):
            source = folder / f"{number}.cpp"
            source.write_text(text + "int main() {}\n")
            command = [compiler, "-std=c++17", "-O2", f"-I{include}", "-c", source, "-o", folder / "object"]
            times[name].append(seconds_of(command))
    print("| included | compiled in, ms | processor time, ms |\n|---|---|---|")
    for name, pairs in times.items():
        columns = [sorted(1000 * value for value in column) for column in zip(*pairs)]
        cells = " | ".join(f"{statistics.median(c):.0f} ({c[0]:.0f} to {c[-1]:.0f})" for c in columns)
        print(f"| {name} | {cells} |")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--runs", type=int, default=7)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as name:
        print_sizes(options.build, pathlib.Path(name))
        print_compile_times(compiler_of(options.build), pathlib.Path(name), options.runs)


if __name__ == "__main__":
    main()
