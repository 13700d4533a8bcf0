"""What a type checker must know of the package. Checked, and not run."""

from typing import List

import korvane
import numpy as np
from korvane import service


def use(address: str) -> None:
    with korvane.open(address) as any_hand:
        positions: "np.ndarray[int, np.dtype[np.int16]]" = any_hand.positions()
        any_hand.set_positions(positions)
        any_hand.set_positions([1, 2.5])
        any_hand.move(angles={"thumb_1": 0.1}, seconds=2)
        any_hand.update("file", progress=lambda current, total, status: print(status.name))
        words: List[str] = [joint.name for joint in any_hand.joints]
    tessel = korvane.open(address, korvane.Tessel)
    tessel.set_current_periods([1] * 12)
    with korvane.simulated() as brisa, brisa.stream(50) as stream:
        for sample in stream:
            print(sample.time + 1, sample["positions"], brisa.touch_summary("thumb").mean(), words)
    with service.open(address) as face:
        print(face.axis_limit_pos().upper.max(), face.hand.info().firmware.upper())
    try:
        recording = korvane.load("r.csv")
        brisa.play(recording)
    except korvane.KorvaneError as error:
        print(error.advice.upper(), error.system_error + 1)
