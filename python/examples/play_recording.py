#!/usr/bin/env python3
"""Plays a recorded motion on a hand of the same model.

usage: play_recording.py RECORDING [ADDRESS] [--speed X]
Without an address a simulated Brisa plays it.
"""

import argparse

import korvane
import numpy as np


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("recording", help="a CSV of korvane record or korvane.record")
    parser.add_argument("address", nargs="?", help="of a hand, such as can0:brisa:1")
    parser.add_argument("--speed", type=float, default=1.0)
    options = parser.parse_args()
    try:
        recording = korvane.load(options.recording)
        with korvane.open(options.address) if options.address else korvane.simulated() as hand:
            hand.play(recording, speed=options.speed)
            hand.wait_until_still()
            away = np.abs(hand.positions() - recording["positions"][-1]).max()
            print(f"{len(recording)} samples of a {recording.model}; the end was met within {away:.0f} units")
    except (korvane.KorvaneError, OSError) as error:
        raise SystemExit(f"{error}\n{getattr(error, 'advice', '')}".rstrip())


if __name__ == "__main__":
    main()
