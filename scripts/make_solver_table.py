#!/usr/bin/env python3
"""Prints the values that the solver tests compare with.

    scripts/make_solver_table.py > tests/unit/data/brisa_solver_table.inc

An independent calculation, kept apart from the C++ code on purpose: correct each by the
calibration of the hand, never one by the other. Python's floats are IEEE doubles and are not
contracted, so that truncated values can be compared exactly. The random numbers have a fixed seed.
"""

import random

SCALE_TOP = 4096
JOINTS = range(10)
FLEXION = (4, 5, 7, 9)
SIDED = (0, 1, 2, 3, 6, 8)  # joints that count the other way on the mirrored hand

JOINT_LIMITS = [(-0.03, 1.12), (-1.64, 0.05), (0.0, 0.8416), (-0.16, 0.0), (0.0, 1.48),
                (0.0, 1.48), (0.0, 0.17), (0.0, 1.48), (0.0, 0.19), (0.0, 1.48)]
LINEAR_LIMITS = [(-0.03, 1.12), (-1.64, 0.05), (0.0, 1.33), (-0.16, 0.0), (0.0, 1.43),
                 (0.0, 1.43), (0.0, 0.17), (0.0, 1.43), (0.0, 0.19), (0.0, 1.43)]

DISTAL = [0.0, 2.192, -1.425, 0.747, -0.167]
FLEXION_FORWARD = [0.00944480234881967, 0.455882677008572, 0.683758090072141,
                   -0.916673507519311, 0.459387725400186]
FLEXION_INVERSE = [-0.000257594494466942, 1.57144033291557, 0.217395210463076,
                   -0.768328304426314, 0.248168989312469]
THUMB_FORWARD = [0.00126371020922368, 0.919140692758276, 0.550958572722048,
                 -0.785384985903032, 1.25635285116862]
THUMB_INVERSE = [-0.000677604838762652, 1.05175893483608, -0.280133575638901,
                 -0.115384415912668, 0.0676128925382166]
THUMB_TIP_A = [0.0, 1.33]
THUMB_TIP_B = [0.0, 1.846, -0.853, 0.28]

GESTURES = [
    [0.58, -0.21, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0],
    [0.43, -0.3, 0.66, 0.0, 1.48, 1.48, 0.0, 1.48, 0.0, 1.48],
    [0.5, -1.0, 0.75, 0.0, 1.48, 1.48, 0.0, 1.48, 0.0, 1.48],
    [-0.03, -1.51, 0.7, -0.16, 0.85, 0.21, 0.07, 0.153, 0.107, 0.1],
    [0.8, -0.4, 0.47, 0.0, 0.82, 1.48, 0.0, 1.48, 0.0, 1.48],
    [0.27, 0.0, 0.0, 0.0, 1.48, 1.48, 0.0, 1.48, 0.0, 1.48],
    [0.33, 0.0, 0.0, -0.1, 0.0, 1.48, 0.07, 1.48, 0.11, 0.0],
    [0.32, -1.12, 0.79, -0.06, 0.0, 1.48, 0.0, 1.48, 0.0, 1.48],
    [0.48, -1.5, 0.79, -0.16, 0.0, 0.0, 0.0, 1.48, 0.0, 1.48],
    [0.64, -1.48, 0.81, -0.16, 0.0, 0.0, 0.09, 0.0, 0.09, 1.48],
    [0.64, -1.48, 0.81, -0.16, 0.0, 0.0, 0.07, 0.0, 0.15, 0.0],
    [0.4, 0.0, 0.0, 0.0, 1.48, 1.48, 0.05, 1.48, 0.17, 0.0],
    [0.4, 0.0, 0.0, 0.0, 0.0, 1.48, 0.0, 1.48, 0.0, 1.48],
    [-0.03, -1.36, 0.0, 0.0, 0.65, 0.65, 0.0, 0.65, 0.0, 0.65],
    [0.3, -0.1, 0.66, 0.0, 1.1, 1.1, 0.0, 1.1, 0.0, 1.1],
    [0.0, -1.56, 0.46, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0],
    [0.5, -0.8, 0.2, -0.16, 0.6, 0.6, 0.17, 0.6, 0.17, 0.6],
]


def odd_mirror(coefficients):
    """The polynomial q with q(-x) = -p(x)."""
    return [-c if power % 2 == 0 else c for power, c in enumerate(coefficients)]


def polynomial(x, coefficients):
    total, power = 0.0, 1.0
    for coefficient in coefficients:
        total += coefficient * power
        power *= x
    return total


class Hand:
    """One side of the hand."""

    def __init__(self, mirrored):
        self.mirrored = mirrored
        self.joint = [self.flip(i, pair) for i, pair in enumerate(JOINT_LIMITS)]
        self.linear = [self.flip(i, pair) for i, pair in enumerate(LINEAR_LIMITS)]
        # Rising means that the actuator input rises with the joint position.
        rising = (0, 2, 6) if mirrored else (6,)
        self.at_min = [0 if i in rising else SCALE_TOP for i in JOINTS]
        self.at_max = [SCALE_TOP - at_min for at_min in self.at_min]
        self.thumb_forward = odd_mirror(THUMB_FORWARD) if mirrored else THUMB_FORWARD
        self.thumb_inverse = odd_mirror(THUMB_INVERSE) if mirrored else THUMB_INVERSE
        self.thumb_tip_b = [0.0, 1.846, 0.853, 0.28] if mirrored else THUMB_TIP_B

    def flip(self, joint, limits):
        low, high = limits
        return (-high, -low) if self.mirrored and joint in SIDED else limits

    def clamp(self, joints):
        return [min(max(value, low), high) for value, (low, high) in zip(joints, self.joint)]

    def fit(self, joints, thumb, flexion):
        fitted = list(joints)
        fitted[2] = polynomial(joints[2], thumb)
        for i in FLEXION:
            fitted[i] = polynomial(joints[i], flexion)
        return fitted

    def to_actuator(self, joints):
        positions = self.fit(self.clamp(joints), self.thumb_forward, FLEXION_FORWARD)
        inputs = []
        for i, (low, high) in enumerate(self.linear):
            span = self.at_max[i] - self.at_min[i]
            inputs.append(int(span * (positions[i] - low) / (high - low)) + self.at_min[i])
        return inputs

    def to_joint(self, inputs):
        positions = []
        for i, (low, high) in enumerate(self.linear):
            span = self.at_max[i] - self.at_min[i]
            positions.append((high - low) * (inputs[i] - self.at_min[i]) / span + low)
        return self.clamp(self.fit(positions, self.thumb_inverse, FLEXION_INVERSE))

    def all_joints(self, joints):
        result = joints[0:3]
        result += [polynomial(joints[2], THUMB_TIP_A), polynomial(joints[2], self.thumb_tip_b)]
        for sideways, flexion in ((3, 4), (None, 5), (6, 7), (8, 9)):
            if sideways is not None:
                result.append(joints[sideways])
            result += [joints[flexion], polynomial(joints[flexion], DISTAL)]
        return result

    def gesture(self, number):
        joints = GESTURES[number] if 0 <= number < len(GESTURES) else [0.0] * 10
        if self.mirrored:
            joints = [-value if i in SIDED else value for i, value in enumerate(joints)]
        return self.to_actuator(joints)

    def random_joints(self, beyond):
        """Positions up to `beyond` times the range away from the limits."""
        positions = []
        for low, high in self.joint:
            margin = beyond * (high - low)
            positions.append(round(random.uniform(low - margin, high + margin), 4))
        return positions


def row(*fields):
    braced = ["{" + ", ".join(map(repr, f)) + "}" if isinstance(f, list) else repr(f).lower()
              for f in fields]
    print("    {" + ", ".join(braced) + "},")


def table(declaration, rows):
    print(f"\nconst {declaration}[] = {{")
    for fields in rows:
        row(*fields)
    print("};")


def main():
    random.seed(7)
    hands = [Hand(False), Hand(True)]
    joints = [(hand, hand.random_joints(beyond))
              for hand in hands for beyond in [0.0] * 8 + [0.6] * 6]
    joints += [(hand, list(limits)) for hand in hands for limits in zip(*hand.joint)]
    inputs = [(hand, [random.randint(-margin, SCALE_TOP + margin) for _ in JOINTS])
              for hand in hands for margin in [0] * 5 + [3000] * 3]
    numbers = [-2**31, -1, *range(len(GESTURES) + 1), 2**31 - 1]

    sides = []
    for hand in hands:
        limits = [list(column) for pairs in (hand.joint, hand.linear) for column in zip(*pairs)]
        sides.append((hand.mirrored, *limits, hand.at_min, hand.at_max,
                      FLEXION_FORWARD, hand.thumb_forward))

    print("// Made by scripts/make_solver_table.py; don't edit.")
    table("SideRow kSideRows", sides)
    table("ForwardRow kForwardRows", [(h.mirrored, j, h.to_actuator(j)) for h, j in joints])
    table("InverseRow kInverseRows", [(h.mirrored, v, h.to_joint(v)) for h, v in inputs])
    table("AllJointsRow kAllJointsRows", [(h.mirrored, j, h.all_joints(j)) for h, j in joints[::3]])
    table("GestureRow kGestureRows",
          [(h.mirrored, n, h.gesture(n)) for h in hands for n in numbers])


if __name__ == "__main__":
    main()
