#!/usr/bin/env python3
"""Draws joints and touch of a hand as they change, and saves the last picture.

usage: live_view.py [ADDRESS] [--seconds S] [--save FILE]
Without an address a simulated Brisa moves through some of its gestures. Without a display only --save shows
anything.
"""

import argparse
import threading

import korvane
import matplotlib
import numpy as np

SHOWN_SECONDS = 5


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("address", nargs="?", help="of a hand, such as can0:brisa:1")
    parser.add_argument("--seconds", type=float, default=5.0)
    parser.add_argument("--save", metavar="FILE", help="draw into a file, and nothing on a display")
    return parser.parse_args()


def wave(hand, stop):
    """Moves through a few gestures until it is stopped."""
    try:
        while True:
            for gesture in (3, 0, 5, 0):
                hand.move(gesture=gesture, seconds=0.8)
                if stop.is_set():
                    return
    except korvane.KorvaneError as error:
        print(error)


class Picture:
    """Joint angles against time above, the cells of each sensor below."""

    def __init__(self, pyplot, hand, sample):
        self.figure, (self.joints, touch) = pyplot.subplots(2, 1, figsize=(8, 6), height_ratios=(2, 1))
        self.names = [joint.name for joint in hand.joints]
        self.lines = [self.joints.plot([], [], linewidth=1, label=name)[0] for name in self.names]
        limits = [angle for joint in hand.joints for angle in (joint.lower, joint.upper)]
        range_shown = (min(limits) - 0.1, max(limits) + 0.1)
        self.joints.set(xlabel="s", ylabel="rad", ylim=range_shown, title=str(hand.address.model))
        self.joints.legend(fontsize=6, ncol=2, loc="upper left", bbox_to_anchor=(1, 1))
        self.image = touch.imshow(self.cells(sample), vmin=0, vmax=255, aspect="auto", cmap="magma")
        touch.set(xlabel="cell", yticks=range(len(sample.touch)), yticklabels=list(sample.touch), title="touch")
        self.figure.tight_layout()

    @staticmethod
    def cells(sample):
        widest = max(len(cells) for cells in sample.touch.values())
        rows = (cells.astype(float) for cells in sample.touch.values())
        return np.array([np.pad(row, (0, widest - len(row)), constant_values=np.nan) for row in rows])

    def draw(self, samples):
        times = [sample.time for sample in samples]
        for line, angles in zip(self.lines, np.array([sample["angles"] for sample in samples]).T):
            line.set_data(times, angles)
        self.joints.set_xlim(max(0, times[-1] - SHOWN_SECONDS), max(SHOWN_SECONDS, times[-1]))
        self.image.set_data(self.cells(samples[-1]))


def show(hand, options):
    if options.save:
        matplotlib.use("Agg")
    from matplotlib import pyplot

    samples = []
    with hand.stream(30, ["angles", "touch"]) as stream:
        picture = None
        for sample in stream:
            samples.append(sample)
            picture = picture or Picture(pyplot, hand, sample)
            if not options.save:
                picture.draw(samples[-30 * SHOWN_SECONDS:])
                pyplot.pause(0.001)
            if sample.time > options.seconds:
                break
        print(f"{len(samples)} samples, {stream.dropped} dropped, {stream.lost} lost")
    picture.draw(samples)
    if options.save:
        picture.figure.savefig(options.save, dpi=70)


def main():
    options = arguments()
    if options.address:
        with korvane.open(options.address) as hand:
            show(hand, options)
        return
    with korvane.simulated() as hand:
        stop = threading.Event()
        mover = threading.Thread(target=wave, args=(hand, stop))
        mover.start()
        try:
            show(hand, options)
        finally:
            stop.set()
            mover.join()


if __name__ == "__main__":
    main()
