#!/usr/bin/env python3
"""What looking costs: the processor time of `korvane serve`, and the round trips of its hand, without and with clients.

    benchmarks/serve_load.py build/release/bin/korvane -H can0:brisa:1
"""

import argparse
import json
import os
import subprocess
import threading
import urllib.request

CLOCK = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as file:
        return sum(map(int, file.read().rsplit(")", 1)[1].split()[11:13])) / CLOCK


def events(url):
    for line in urllib.request.urlopen(url + "api/hands/1/events"):
        if line.startswith(b"data: "):
            yield line


def read_all(url, counts, i):
    try:
        for _ in events(url):
            counts[i] += 1
    except OSError:
        pass


def measure(options, clients):
    command = [options.korvane, "serve", "-H", options.hand, "--port", "0", "--rate", str(options.rate)]
    process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
    url = process.stdout.readline().strip()
    counts = [0] * clients
    for i in range(clients):
        threading.Thread(target=read_all, args=(url, counts, i), daemon=True).start()
    before = None
    for line in events(url):  # one more reader, in both cases
        event = json.loads(line[6:])
        if before is None:
            before, cpu, began = event, cpu_seconds(process.pid), event["time_s"]
        elif event["time_s"] - began >= options.seconds:
            break
    used, link = cpu_seconds(process.pid) - cpu, event["link"]
    span = event["time_s"] - began
    process.terminate()
    process.wait()
    readings = link["readings"] - before["link"]["readings"]
    print(f"{clients:3} clients: {100 * used / span:5.1f} % of a core, {readings / span:5.1f} readings/s, "
          f"{link['lost']} lost, p50 {link['p50_us']} us, p99 {link['p99_us']} us; "
          f"{min(counts, default=0) / span:.1f} to {max(counts, default=0) / span:.1f} events/s to a client")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("korvane")
    parser.add_argument("-H", "--hand", required=True)
    parser.add_argument("--clients", type=int, default=20)
    parser.add_argument("--rate", type=int, default=30)
    parser.add_argument("--seconds", type=float, default=35)
    options = parser.parse_args()
    for clients in (0, options.clients, 0, options.clients):
        measure(options, clients)


if __name__ == "__main__":
    main()
